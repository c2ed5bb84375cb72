#include <algorithm>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "batch/tasklist.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::writeFile;
using Paths = std::vector<std::string>;

Paths pathsOf(const TaskList& list)
{
    Paths paths;
    for (std::size_t i = 0; i < list.size(); ++i) {
        paths.push_back(list.item(i).path());
    }
    return paths;
}

TEST(IsMediaFileName, MatchesTheClipExtensionsWithoutRegardToCase)
{
    // A name of each clip type in the order of the types from 1, then names of no clip.
    const std::vector<std::string> clips = {"a.ts",  "/x/y.AVI", "z.Mpg",  "a.m2p",    "a.M2T",
                                            "a.m2v", "a.mov",    "a.mkv",  "clip.MXF", ".mp4",
                                            "a.m4v", "a.flv",    "a.f4v",  "a.swf",    "a.WMV",
                                            "a.wav", "a.mp3",    "a.mpeg", "a.M2TS"};
    for (std::size_t i = 0; i < clips.size(); ++i) {
        EXPECT_EQ(IsMediaFileName(clips[i]), static_cast<int>(i) + 1) << clips[i];
    }
    for (const char* name : {".ts", "ts", "", "a.ts.bak", "clip.txt", "a.mpeg4", "a_ts", "dir.mxf/",
                             "a.m\xC3\xA4v", "a.\xC4\xB1ts"}) {
        EXPECT_EQ(IsMediaFileName(name), 0) << name;
    }
    EXPECT_EQ(IsMediaFileName("\xC3\xA9.ts"), 1);
    EXPECT_EQ(clipExtensions().size(), clips.size());
}

TEST(TaskList, LimitCutsTheAdditionAndReportsTheWarningNumbers)
{
    using W = TaskLimitWarning;
    const Paths three = {"/new/1.mp4", "/new/2.mp4", "/new/3.mp4"};
    // items listed before, paths added, the warning's numbers, items added
    const std::tuple<std::size_t, Paths, std::optional<TaskLimitWarning>, std::size_t> cases[] = {
        {49997, three, std::nullopt, 3},
        {49999, three, W{50000, 3, 2, 1}, 1},
        {50000, {"/n/a.ts", "/n/b.ts", "/n/c.ts", "/n/d.ts"}, W{50000, 4, 4, 0}, 0},
        // Command-line items are not counted against the limit, so a list can be over it.
        {50002, three, W{50000, 3, 5, -2}, 0},
        // Non-clips and duplicates are dropped before the limit is applied.
        {49999, {"/new/1.mp4", "/n/x.txt", "/fill/0.mp4", "/new/2.mp4"}, W{50000, 2, 1, 1}, 1},
    };
    for (const auto& [existing, paths, warning, added] : cases) {
        SCOPED_TRACE(existing);
        TaskList list;
        for (std::size_t i = 0; i < existing; ++i) {
            list.AppendFromCommandLine("/fill/" + std::to_string(i) + ".mp4");
        }
        const AddFilesResult result = list.AddFiles(3, paths);
        EXPECT_EQ(result.warning, warning);
        EXPECT_EQ(result.added, added);
        EXPECT_EQ(list.size(), existing + added);
        if (added > 0) {
            // The first kept paths in order are the ones added, at the position.
            EXPECT_EQ(result.position, 3u);
            EXPECT_EQ(list.item(3).path(), "/new/1.mp4");
            EXPECT_EQ(list.item(4).path(), added > 1 ? "/new/2.mp4" : "/fill/3.mp4");
        }
    }
    // A list already over the limit shows the negative count as it is.
    EXPECT_TRUE((W{50000, 3, 5, -2}).text().ends_with("(5 over the limit), it will only -2."));
}

TEST(TaskList, AddFilesInsertsOneBlockAtTheClampedPosition)
{
    // position asked for, row given, the list after
    const std::tuple<std::int64_t, std::size_t, Paths> cases[] = {
        {-5, 0, {"/n/1.ts", "/n/2.ts", "/l/a.ts", "/l/b.ts"}},
        {1, 1, {"/l/a.ts", "/n/1.ts", "/n/2.ts", "/l/b.ts"}},
        {999, 2, {"/l/a.ts", "/l/b.ts", "/n/1.ts", "/n/2.ts"}}};
    for (const auto& [position, row, expected] : cases) {
        SCOPED_TRACE(position);
        TaskList list;
        list.AppendFromCommandLine("/l/a.ts");
        list.AppendFromCommandLine("/l/b.ts");
        const AddFilesResult result = list.AddFiles(position, {"/n/1.ts", "/n/2.ts"});
        EXPECT_EQ(result.position, row);
        EXPECT_EQ(pathsOf(list), expected);
    }
}

// Only additions from files, drops and jobs skip listed paths: the whole string, with case.
TEST(TaskList, DuplicatesAreListedPathsSpelledTheSame)
{
    TaskList list;
    list.AppendFromCommandLine("notes.txt");
    list.AppendFromCommandLine("notes.txt");
    list.AppendFromCommandLine("/a/x.mp4");
    EXPECT_EQ(list.AddFiles(9, {"/a/X.mp4", "/A/x.MP4", "a/x.mp4", "/a//x.mp4", "/a/x.mp4"}).added,
              4u);
    EXPECT_TRUE(list.AppendFromJob("/j/a.mxf"));
    EXPECT_FALSE(list.AppendFromJob("/j/a.mxf"));
    EXPECT_TRUE(list.AppendFromJob("/j/A.mxf"));
    EXPECT_FALSE(list.AppendFromJob("/a/x.mp4"));
    EXPECT_FALSE(list.AppendFromJob("notes.txt"));
    EXPECT_TRUE(list.AppendFromJob("readme"));
    EXPECT_EQ(pathsOf(list), (Paths{"notes.txt", "notes.txt", "/a/x.mp4", "/a/X.mp4", "/A/x.MP4",
                                    "a/x.mp4", "/a//x.mp4", "/j/a.mxf", "/j/A.mxf", "readme"}));
    // Nothing left to add: no block, no warning.
    const AddFilesResult none = list.AddFiles(0, {"/a/x.mp4", "/a/b.txt"});
    EXPECT_EQ(none.added, 0u);
    EXPECT_FALSE(none.warning.has_value());
}

TEST(TaskList, ClearingAndFindingItems)
{
    TaskList list;
    list.AddFiles(0, {"/c/1.ts", "/c/2.ts", "/c/3.ts", "/c/4.ts", "/c/2.ts"});
    ASSERT_EQ(list.size(), 5u);
    EXPECT_EQ(list.firstUnfinished(), 0u);
    const std::uint64_t thirdId = list.item(2).id();
    for (std::size_t row : {0u, 1u, 3u}) {
        list.item(row).setResult(std::make_unique<QcResult>());
    }
    EXPECT_EQ(list.firstUnfinished(), 2u);
    EXPECT_EQ(list.indexOfId(thirdId), 2u);

    EXPECT_EQ(list.ClearFinished(), 3u);
    EXPECT_EQ(pathsOf(list), (Paths{"/c/3.ts", "/c/2.ts"}));
    EXPECT_EQ(list.indexOfId(thirdId), 0u);
    // One of the two "/c/2.ts" items is gone, the other still blocks the path; a path whose
    // last item went may be added again.
    EXPECT_EQ(list.AddFiles(9, {"/c/2.ts", "/c/1.ts"}).added, 1u);
    EXPECT_EQ(pathsOf(list), (Paths{"/c/3.ts", "/c/2.ts", "/c/1.ts"}));
    // One row out: the rows after it move up and are found again by id.
    const std::uint64_t lastId = list.item(2).id();
    EXPECT_FALSE(list.Remove(3));
    EXPECT_TRUE(list.Remove(1));
    EXPECT_EQ(pathsOf(list), (Paths{"/c/3.ts", "/c/1.ts"}));
    EXPECT_EQ(list.indexOfId(lastId), 1u);
    EXPECT_EQ(list.AddFiles(9, {"/c/2.ts"}).added, 1u) << "a removed path may be added again";

    for (std::size_t row = 0; row < list.size(); ++row) {
        list.item(row).setResult(std::make_unique<QcResult>());
    }
    EXPECT_EQ(list.firstUnfinished(), TaskList::npos);
    EXPECT_EQ(list.ClearFinished(), 3u);
    EXPECT_TRUE(list.empty());

    list.AddFiles(0, {"/c/1.ts", "/c/2.ts"});
    list.ClearAll();
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.AddFiles(0, {"/c/1.ts"}).added, 1u) << "a cleared path may be added again";
}

Paths sorted(Paths paths)
{
    std::sort(paths.begin(), paths.end());
    return paths;
}

// Clips and non-clips at several levels, and folders named like clips.
struct ClipTree
{
    TempDir dir;
    std::string root = (dir / "in").string();
    std::string outside = (dir / "outside").string();

    ClipTree()
    {
        for (const char* folder : {"in", "in/dir.mxf", "in/sub", "in/sub/deeper", "in/empty",
                                   "in/sub/deeper/k.mov", "outside"}) {
            fs::create_directory(dir / folder);
        }
        for (const char* file :
             {"in/a.mp4", "in/b.TXT", "in/C.MXF", "in/dir.mxf/inner.mov", "in/sub/x.ts",
              "in/sub/notes.txt", "in/sub/deeper/y.m2ts", "in/sub/deeper/z.wav.bak",
              "in/sub/deeper/k.mov/w.wav", "outside/o.mp4"}) {
            writeFile(dir / file, "x");
        }
    }

    // The clips in it, sorted.
    Paths clips() const
    {
        return sorted({root + "/a.mp4", root + "/C.MXF", root + "/dir.mxf/inner.mov",
                       root + "/sub/deeper/k.mov/w.wav", root + "/sub/deeper/y.m2ts",
                       root + "/sub/x.ts"});
    }

    // A recursive walk in listing order with the same "folder + /" rule.
    static void walk(const std::string& folder, Paths& out)
    {
        for (const auto& entry : fs::directory_iterator(folder)) {
            const std::string path = folder + "/" + entry.path().filename().string();
            if (entry.is_directory()) {
                walk(path, out);
            } else if (IsMediaFileName(path) != 0) {
                out.push_back(path);
            }
        }
    }
};

TEST(TaskList, ScanFolderCollectsClipsAtEveryDepthInListingOrder)
{
    ClipTree tree;
    const std::string& r = tree.root;
    TaskList list;
    Paths found;
    list.ScanFolder(r, found);
    EXPECT_EQ(sorted(found), tree.clips());
    Paths expected;
    ClipTree::walk(r, expected);
    EXPECT_EQ(found, expected);

    // A trailing separator is doubled, not removed, and listed paths are skipped.
    list.AppendFromCommandLine(r + "//sub/x.ts");
    Paths doubled;
    list.ScanFolder(r + "/", doubled);
    Paths expectedDoubled;
    ClipTree::walk(r + "/", expectedDoubled);
    expectedDoubled.erase(
        std::find(expectedDoubled.begin(), expectedDoubled.end(), r + "//sub/x.ts"));
    EXPECT_EQ(doubled, expectedDoubled);

    // Appends to what out already holds; empty or missing folders add nothing.
    Paths kept = {"first"};
    list.ScanFolder("", kept);
    list.ScanFolder(r + "/missing", kept);
    list.ScanFolder(r + "/a.mp4", kept);
    list.ScanFolder(r + "/empty", kept);
    EXPECT_EQ(kept, Paths{"first"});
}

TEST(TaskList, ScanFolderFollowsLinksEntersEachFolderOnceAndSkipsUnreadableOnes)
{
    ClipTree tree;
    const std::string& r = tree.root;
    std::string deep = r;
    for (int level = 0; level < 300; ++level) {
        deep += "/d";
        ASSERT_TRUE(fs::create_directory(deep));
    }
    writeFile(deep + "/bottom.ts", "x");
    fs::create_directory_symlink("..", r + "/sub/up");
    fs::create_directory_symlink(".", r + "/self");
    fs::create_directory_symlink(r + "/sub", r + "/alias");
    fs::create_directory_symlink("../outside", r + "/out");
    fs::create_symlink("a.mp4", r + "/link.mp4");
    fs::create_symlink("missing", r + "/dangling.mkv");
    fs::create_directory(r + "/locked");
    writeFile(r + "/locked/hidden.mp4", "x");
    fs::permissions(r + "/locked", fs::perms::none);
    // The test's temp folder is private to its owner; the unprivileged scan must reach it.
    fs::permissions(tree.dir.path(), fs::perms::owner_all | fs::perms::group_read |
                                         fs::perms::group_exec | fs::perms::others_read |
                                         fs::perms::others_exec);
    const auto lines = [](const Paths& paths) {
        std::string text;
        for (const std::string& line : sorted(paths)) {
            text += line + "\n";
        }
        return text;
    };
    // Root reads any folder: the scan runs as an unprivileged user then.
    const std::optional<std::string> listed = test::runUnprivileged([&] {
        TaskList list;
        Paths found;
        Paths unreadable;
        list.ScanFolder(r, found, &unreadable);
        Paths names;
        for (const auto& path : found) {
            names.push_back(fs::path(path).filename().string());
        }
        for (const std::string& path : unreadable) {
            names.push_back("unreadable " + path);
        }
        return lines(names);
    });
    fs::permissions(r + "/locked", fs::perms::owner_all);
    ASSERT_TRUE(listed) << "running as root without the right to drop to an unprivileged user";
    // sub is reached directly and through alias, but scanned once; up and self lead back to
    // folders already entered; out leads to a folder outside the tree.
    EXPECT_EQ(*listed,
              lines({"a.mp4", "C.MXF", "inner.mov", "x.ts", "y.m2ts", "w.wav", "o.mp4", "link.mp4",
                     "dangling.mkv", "bottom.ts", "unreadable " + r + "/locked"}));
}

TEST(TaskList, DropDecisions)
{
    ClipTree tree;
    const std::string& r = tree.root;
    const std::pair<Paths, bool> cases[] = {{{}, false},
                                            {{r + "/b.TXT", r + "/sub/notes.txt"}, false},
                                            {{r + "/b.TXT", r + "/empty"}, true},
                                            {{"/nowhere/x.MXF"}, true},
                                            {{"/nowhere/folder"}, false},
                                            {{r + "/dir.mxf"}, true}};
    for (const auto& [paths, accept] : cases) {
        SCOPED_TRACE(paths.empty() ? "none" : paths.front());
        EXPECT_EQ(TaskList::CanAccept(paths), accept);
    }

    TaskList list;
    list.AppendFromCommandLine(r + "/a.mp4");
    list.AppendFromCommandLine("/l/last.ts");
    const Paths dropped = {r + "/sub", "/else/new.mov", r + "/b.TXT", r + "/a.mp4",
                           "/else/new.mov"};
    Paths expected;
    ClipTree::walk(r + "/sub", expected);
    expected.insert(expected.end(), {"/else/new.mov", "/else/new.mov"});

    const AddFilesResult result = list.Drop(1, dropped);
    EXPECT_EQ(result.position, 1u);
    EXPECT_EQ(result.added, expected.size());
    Paths all = {r + "/a.mp4"};
    all.insert(all.end(), expected.begin(), expected.end());
    all.push_back("/l/last.ts");
    EXPECT_EQ(pathsOf(list), all);

    const AddFilesResult nothing = list.Drop(0, {r + "/b.TXT", r + "/a.mp4", r + "/empty"});
    EXPECT_EQ(nothing.added, 0u);
    EXPECT_FALSE(nothing.warning.has_value());
}

} // namespace
} // namespace tarvoqc
