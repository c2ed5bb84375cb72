#include <filesystem>
#include <iterator>
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
    const std::string longName = std::string(250, 'n') + ".csv"; // 254 bytes
    // What is under the name before (a file, a FIFO, a folder, nothing), the name, written
    const std::tuple<fs::file_type, std::string, bool> cases[] = {
        {fs::file_type::not_found, "out", true},  {fs::file_type::regular, "out", true},
        {fs::file_type::regular, longName, true}, {fs::file_type::fifo, "out", false},
        {fs::file_type::directory, "out", false}, {fs::file_type::not_found, "no/out", false},
    };
    for (const auto& [before, name, written] : cases) {
        SCOPED_TRACE(name + " " + std::to_string(static_cast<int>(before)));
        const TempDir dir;
        const std::string path = (dir / name).string();
        if (before == fs::file_type::regular) {
            writeFile(path, "old");
        } else if (before == fs::file_type::fifo) {
            ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        } else if (before == fs::file_type::directory) {
            fs::create_directory(path);
        }
        const std::size_t entries = entriesIn(dir.path());
        EXPECT_EQ(replaceFile(path, "new bytes"), written);
        EXPECT_EQ(fs::symlink_status(path).type(), written ? fs::file_type::regular : before);
        EXPECT_EQ(entriesIn(dir.path()), written && entries == 0 ? 1u : entries)
            << "a temp file was left behind";
        if (before == fs::file_type::regular || written) {
            EXPECT_EQ(readFile(path), written ? "new bytes" : "old");
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

} // namespace
} // namespace tarvoqc
