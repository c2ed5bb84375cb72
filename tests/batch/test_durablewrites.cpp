#include <algorithm>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "batch/safetransfer.h"
#include "files/fileio.h"
#include "results/resultfile.h"
#include "results/xmlnode.h"
#include "settings/profilestore.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;

std::mutex g_lock;
std::vector<std::tuple<dev_t, ino_t, bool>> g_syncs;

void recordSync(dev_t device, ino_t inode, bool folder)
{
    const std::lock_guard lock(g_lock);
    g_syncs.emplace_back(device, inode, folder);
}

// Every write that must survive a power cut reaches the disk with its name: the file written
// is flushed, and its folder is flushed after that (after the rename that gave the file its
// name), through the one file layer.
TEST(DurableWrites, EveryDurableWriteFlushesItsFileAndThenItsFolder)
{
    const test::TempDir dir;
    fs::create_directory(dir / "in");
    fs::create_directory(dir / "good");
    test::writeFile(dir / "in" / "clip.mxf", std::string(200'000, 'c'));
    test::writeFile(dir / "earlier.qcout", "earlier");
    using Write = std::function<bool()>;
    const std::tuple<const char*, Write, fs::path> cases[] = {
        {"result document",
         [&] {
             XmlNode document;
             buildResultDocument(document, {});
             return document.Save((dir / "earlier.qcout").string());
         },
         dir / "earlier.qcout"},
        {"settings",
         [&] { return writeProfileString((dir / "TarvoQC.ini").string(), "Options", "k", "v"); },
         dir / "TarvoQC.ini"},
        {"moved clip",
         [&] {
             return SafeMove((dir / "good" / "clip.mxf").string(),
                             (dir / "in" / "clip.mxf").string(), TransferUnique, nullptr) == 0;
         },
         dir / "good" / "clip.mxf"},
    };
    for (const auto& [name, write, path] : cases) {
        SCOPED_TRACE(name);
        g_syncs.clear();
        setSyncObserver(recordSync);
        const bool written = write();
        setSyncObserver(nullptr);
        ASSERT_TRUE(written);
        struct stat file
        {};
        struct stat folder
        {};
        ASSERT_EQ(::stat(path.c_str(), &file), 0);
        ASSERT_EQ(::stat(path.parent_path().c_str(), &folder), 0);
        const auto fileSync =
            std::find(g_syncs.begin(), g_syncs.end(), std::tuple{file.st_dev, file.st_ino, false});
        ASSERT_NE(fileSync, g_syncs.end()) << "the file is not flushed";
        EXPECT_NE(
            std::find(fileSync, g_syncs.end(), std::tuple{folder.st_dev, folder.st_ino, true}),
            g_syncs.end())
            << "its folder is not flushed after it";
    }
}

} // namespace
} // namespace tarvoqc
