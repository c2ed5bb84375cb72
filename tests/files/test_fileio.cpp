#include <filesystem>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "files/fileio.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::TempDir;
using test::writeFile;

std::size_t entriesIn(const fs::path& folder)
{
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

TEST(FileIo, ReadWholeFileTellsMissingFromRefusedAndCutsAtTheLimit)
{
    const TempDir dir;
    writeFile(dir / "four", "abcd");
    writeFile(dir / "five", "abcde");
    writeFile(dir / "empty", "");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    fs::create_symlink(dir / "four", dir / "link");
    using Status = FileBytes::Status;
    const std::tuple<std::string, Status, std::string> cases[] = {
        {(dir / "four").string(), Status::Ok, "abcd"}, // exactly the limit
        {(dir / "five").string(), Status::TooLong, "abcd"},
        {(dir / "empty").string(), Status::Ok, ""},
        {(dir / "link").string(), Status::Ok, "abcd"},
        {(dir / "none").string(), Status::Missing, ""},
        {(dir / "four" / "x").string(), Status::Missing, ""},
        {dir.path().string(), Status::Failed, ""},
        {(dir / "fifo").string(), Status::Failed, ""}, // without waiting for a writer
        {"/dev/zero", Status::Failed, ""},             // without reading it
    };
    for (const auto& [path, status, bytes] : cases) {
        SCOPED_TRACE(path);
        const FileBytes read = readWholeFile(path, 4);
        EXPECT_EQ(read.status, status);
        EXPECT_EQ(read.bytes, bytes);
    }
}

// Every way a replacement can end: the target holds either the new bytes or exactly what it
// held before, and no temp file is left beside it.
TEST(FileIo, ReplaceFileLeavesTheNewFileOrTheOldOneAndNothingElse)
{
    struct Case
    {
        const char* name;
        std::function<std::string(const fs::path&)> setup; // gives the path to write to
        bool written;
    };
    const std::string longName = std::string(250, 'n') + ".csv";
    const Case cases[] = {
        {"new file", [](const fs::path& d) { return (d / "out").string(); }, true},
        {"earlier file",
         [](const fs::path& d) {
             writeFile(d / "out", "old");
             return (d / "out").string();
         },
         true},
        {"name of 254 bytes",
         [&](const fs::path& d) {
             writeFile(d / longName, "old");
             return (d / longName).string();
         },
         true},
        {"FIFO",
         [](const fs::path& d) {
             ::mkfifo((d / "out").c_str(), 0600);
             return (d / "out").string();
         },
         false},
        {"folder",
         [](const fs::path& d) {
             fs::create_directory(d / "out");
             return (d / "out").string();
         },
         false},
        {"no folder", [](const fs::path& d) { return (d / "no" / "out").string(); }, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir dir;
        const std::string path = c.setup(dir.path());
        const fs::file_type before = fs::symlink_status(path).type();
        const std::string old = before == fs::file_type::regular ? readFile(path) : "";
        const std::size_t entries = entriesIn(dir.path());
        EXPECT_EQ(replaceFile(path, "new bytes"), c.written);
        if (c.written) {
            EXPECT_EQ(readFile(path), "new bytes");
            EXPECT_EQ(entriesIn(dir.path()), before == fs::file_type::not_found ? 1u : entries);
        } else {
            EXPECT_EQ(fs::symlink_status(path).type(), before);
            EXPECT_EQ(entriesIn(dir.path()), entries) << "a temp file was left behind";
        }
        if (before == fs::file_type::regular) {
            EXPECT_EQ(readFile(path), c.written ? "new bytes" : old);
        }
    }
}

// A full disk (a file size limit), a folder or a file the user may not write to and a
// replacement that is never committed fail without touching the earlier file; the failing
// ones run as nobody (root may write anywhere) in a child process.
TEST(FileIo, FailedReplacementsKeepTheEarlierFile)
{
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
    const fs::path full = dir / "full";
    const fs::path locked = dir / "locked";
    const fs::path readOnly = dir / "readonly";
    fs::create_directory(full);
    fs::create_directory(locked);
    fs::create_directory(readOnly);
    ASSERT_EQ(::chmod(full.c_str(), 0777), 0);
    ASSERT_EQ(::chmod(readOnly.c_str(), 0777), 0);
    writeFile(readOnly / "out", "old");
    ASSERT_EQ(::chmod((readOnly / "out").c_str(), 0444), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown((readOnly / "out").c_str(), 65534, 65534), 0);
    }
    writeFile(full / "out", "old");
    writeFile(locked / "out", "old");
    ASSERT_EQ(::chmod((locked / "out").c_str(), 0666), 0);
    ASSERT_EQ(::chmod(locked.c_str(), 0555), 0);

    const auto child = [](const fs::path& path, rlim_t limit) {
        return test::runInChild([&]() -> std::optional<std::string> {
            const rlimit fileLimit{limit, limit};
            if (::signal(SIGXFSZ, SIG_IGN) == SIG_ERR ||
                (limit != RLIM_INFINITY && ::setrlimit(RLIMIT_FSIZE, &fileLimit) != 0) ||
                (::geteuid() == 0 && !test::dropToNobody())) {
                return std::nullopt;
            }
            return replaceFile(path.string(), std::string(100'000, 'x')) ? "written" : "failed";
        });
    };
    EXPECT_EQ(child(full / "out", 4096), "failed");
    EXPECT_EQ(child(locked / "out", RLIM_INFINITY), "failed");
    EXPECT_EQ(child(readOnly / "out", RLIM_INFINITY), "failed");
    {
        FileReplacement replacement((full / "out").string());
        ASSERT_TRUE(replacement.ok());
        EXPECT_TRUE(replacement.write("never committed"));
    }
    for (const fs::path& folder : {full, locked, readOnly}) {
        SCOPED_TRACE(folder.string());
        EXPECT_EQ(readFile(folder / "out"), "old");
        EXPECT_EQ(entriesIn(folder), 1u);
    }
}

// The target of a link is replaced, never the link; an earlier file keeps its mode, and its
// owner when root replaces another user's file.
TEST(FileIo, ReplaceFileWritesThroughLinksAndKeepsModeAndOwner)
{
    const TempDir dir;
    writeFile(dir / "real", "old");
    ASSERT_EQ(::chmod((dir / "real").c_str(), 0640), 0);
    const bool root = ::geteuid() == 0;
    if (root) {
        ASSERT_EQ(::chown((dir / "real").c_str(), 65534, 65534), 0);
    }
    fs::create_symlink("real", dir / "link");
    fs::create_symlink(dir / "made", dir / "dangling");
    ASSERT_TRUE(replaceFile((dir / "link").string(), "via link"));
    ASSERT_TRUE(replaceFile((dir / "dangling").string(), "made"));
    ASSERT_TRUE(replaceFile((dir / "sub" / "deeper" / "new").string(), "nested", true));

    EXPECT_TRUE(fs::is_symlink(dir / "link"));
    EXPECT_TRUE(fs::is_symlink(dir / "dangling"));
    EXPECT_EQ(readFile(dir / "real"), "via link");
    EXPECT_EQ(readFile(dir / "made"), "made");
    EXPECT_EQ(readFile(dir / "sub" / "deeper" / "new"), "nested");
    struct stat st
    {};
    ASSERT_EQ(::stat((dir / "real").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(st.st_uid, 65534u);
    }
}

std::mutex g_syncLock;
std::vector<std::tuple<dev_t, ino_t, bool>> g_syncs;

void recordSync(dev_t device, ino_t inode, bool folder)
{
    const std::lock_guard lock(g_syncLock);
    g_syncs.emplace_back(device, inode, folder);
}

// The file is flushed before its folder, and the folder after the rename.
TEST(FileIo, ReplaceFileFlushesTheFileThenItsFolder)
{
    const TempDir dir;
    writeFile(dir / "out", "old");
    g_syncs.clear();
    setSyncObserver(recordSync);
    const bool written = replaceFile((dir / "out").string(), "new");
    setSyncObserver(nullptr);
    ASSERT_TRUE(written);
    struct stat file
    {};
    struct stat folder
    {};
    ASSERT_EQ(::stat((dir / "out").c_str(), &file), 0);
    ASSERT_EQ(::stat(dir.path().c_str(), &folder), 0);
    const std::vector<std::tuple<dev_t, ino_t, bool>> expected = {
        {file.st_dev, file.st_ino, false}, {folder.st_dev, folder.st_ino, true}};
    EXPECT_EQ(g_syncs, expected);
}

} // namespace
} // namespace tarvoqc
