#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Whether the clip has its result document beside it: "<name>.qcout", or for a name too
// long for that, a cut name with a mark that ends in ".qcout".
bool hasDocument(const fs::path& clip)
{
    const std::string name = clip.filename().string();
    if (name.size() + 6 <= 255) {
        return fs::exists(clip.string() + ".qcout");
    }
    for (const auto& entry : fs::directory_iterator(clip.parent_path())) {
        const std::string other = entry.path().filename().string();
        if (other.size() == 255 && other.ends_with(".qcout") &&
            name.starts_with(other.substr(0, 200))) {
            return true;
        }
    }
    return false;
}

// Folders of a watched delivery and the settings homes of the services watching it (one per
// service, as if each ran on a host of its own).
struct Delivery
{
    test::TempDir dir;
    fs::path src = dir / "src";
    fs::path good = dir / "good";
    fs::path bad = dir / "bad";
    std::map<std::string, std::string> dropped; // name -> bytes

    Delivery()
    {
        for (const fs::path& folder : {dir.path(), src, good, bad}) {
            fs::create_directories(folder);
            fs::permissions(folder, fs::perms::all); // services may run as another user
        }
    }

    fs::path home(int service, int settle = 1) const
    {
        const fs::path home = dir / ("home" + std::to_string(service));
        fs::create_directories(home);
        fs::permissions(home, fs::perms::all);
        test::writeFile(
            home / "TarvoQC.ini",
            "[Job00]\nEnabled=1\nSource.Folder=" + src.string() +
                "/\nGood.QCTsh=3\nGood.Move.Enable=1\nGood.Move.Folder=" + good.string() +
                "/\nBad.Move.Enable=1\nBad.Move.Folder=" + bad.string() +
                "/\nSettle.Time=" + std::to_string(settle) + "\n");
        return home;
    }

    // A clip dropped a minute ago (settled).
    void drop(const std::string& name, const std::string& bytes)
    {
        test::writeFile(src / name, bytes);
        fs::last_write_time(src / name, fs::file_time_type::clock::now() - 1min);
        dropped[name] = bytes;
    }

    // The services' command line: argv of tarvoqc-watchd with its home and extra variables.
    std::vector<std::string> service(const fs::path& home, const std::vector<std::string>& env,
                                     const std::vector<std::string>& args = {}) const
    {
        std::vector<std::string> argv = {"env", "TARVOQC_HOME=" + home.string()};
        argv.insert(argv.end(), env.begin(), env.end());
        argv.emplace_back(TARVOQC_WATCHD_EXE);
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    }

    // Every file under the delivery but the homes, by path.
    std::vector<fs::path> files() const
    {
        std::vector<fs::path> found;
        for (const fs::path& folder : {src, good, bad}) {
            for (const auto& entry : fs::recursive_directory_iterator(folder)) {
                found.push_back(entry.path());
            }
        }
        return found;
    }

    // Every dropped clip is in exactly one place, byte for byte, under its name or a unique
    // variant, with its document beside it; nothing else is left (no temp file, no claim
    // folder, no document without its clip). Gives the clips that stayed in the source.
    std::vector<std::string> expectEachClipOnce() const
    {
        std::map<std::string, int> copies;
        std::vector<std::string> stayed;
        for (const fs::path& path : files()) {
            const std::string name = path.filename().string();
            if (fs::is_directory(path)) {
                ADD_FAILURE() << "stray folder " << path;
                continue;
            }
            if (name.ends_with(".qcout")) {
                EXPECT_TRUE(name.size() == 255 ||
                            fs::exists(path.string().substr(0, path.string().size() - 6)))
                    << "document without its clip: " << path;
                continue;
            }
            const std::string bytes = test::readFile(path);
            bool known = false;
            for (const auto& [dropped, content] : dropped) {
                if (content == bytes && (name == dropped || name.find(" (") != std::string::npos)) {
                    ++copies[dropped];
                    known = true;
                    EXPECT_TRUE(hasDocument(path)) << "no document: " << path;
                    if (path.parent_path() == src) {
                        stayed.push_back(dropped);
                    }
                }
            }
            EXPECT_TRUE(known) << "stray file " << path;
        }
        for (const auto& [name, bytes] : dropped) {
            EXPECT_EQ(copies[name], 1) << name;
        }
        return stayed;
    }

    // The lines of a service's daily log without their time stamps (UTF-16 read as ASCII).
    std::vector<std::string> log(const fs::path& home) const
    {
        std::vector<std::string> lines;
        for (const auto& entry : fs::directory_iterator(home / "LogsQC")) {
            const std::string text = test::asciiOfUtf16(test::readFile(entry.path()));
            for (std::size_t at = text.find('\t'); at != std::string::npos;
                 at = text.find('\t', at + 1)) {
                const std::size_t end = text.find("\r\n", at);
                lines.push_back(text.substr(at + 1, end == std::string::npos ? end : end - at - 1));
            }
        }
        return lines;
    }
};

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

char processState(int pid)
{
    const std::string stat = test::readFile("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t close = stat.rfind(')');
    return close == std::string::npos || close + 2 >= stat.size() ? '?' : stat[close + 2];
}

std::string tinyClip(int serial)
{
    // Bytes after an MP3's last frame are skipped by readers: each clip stays a clean clip
    // and differs from every other.
    return test::readFile(test::testClip("cover.mp3")) + "TAG" + std::to_string(serial);
}

// Two and three services on one folder: every clip is checked and moved by exactly one of
// them, and each takes a share of the work.
TEST(WatchService, SeveralServicesOnOneFolderMoveEachClipOnce)
{
    for (const int services : {2, 3}) {
        SCOPED_TRACE(services);
        Delivery d;
        for (int i = 0; i < 200; ++i) {
            d.drop("clip" + std::to_string(1000 + i) + ".mp3", tinyClip(i));
        }
        std::vector<std::unique_ptr<test::ChildProcess>> running;
        for (int s = 0; s < services; ++s) {
            running.push_back(std::make_unique<test::ChildProcess>(d.service(d.home(s), {})));
        }
        EXPECT_TRUE(waitUntil(
            [&] {
                return fs::directory_iterator(d.src) == fs::directory_iterator() ||
                       (std::distance(fs::directory_iterator(d.good), fs::directory_iterator()) ==
                        400);
            },
            180s));
        for (auto& service : running) {
            service->signal(SIGTERM);
            EXPECT_EQ(service->waitFor(30s), 0);
        }
        EXPECT_TRUE(d.expectEachClipOnce().empty());
        std::size_t moves = 0;
        for (int s = 0; s < services; ++s) {
            const auto lines = d.log(d.home(s));
            const auto mine = std::count_if(lines.begin(), lines.end(), [](const std::string& l) {
                return l.starts_with("Moved ");
            });
            EXPECT_GT(mine, 0) << "service " << s << " took no share";
            moves += static_cast<std::size_t>(mine);
        }
        EXPECT_EQ(moves, 200U);
    }
}

// A service stopped (SIGSTOP) at each step of a move and killed there: the next run finishes
// or undoes what it left, and the clip ends up once, whole, with its document.
TEST(WatchService, AServiceKilledAtAnyStepOfAMoveLeavesNothingToCleanUp)
{
    const std::string bytes = test::readFile(test::testClip("mpeg2_pcm.mxf"));
    for (const char* step :
         {"claimed", "checked", "planned", "half copied", "copied", "documented", "moved"}) {
        SCOPED_TRACE(step);
        Delivery d;
        d.drop("clip.mxf", bytes);
        const fs::path home = d.home(0);
        const std::string freeze = step == std::string("half copied") ? "planned" : step;
        {
            test::ChildProcess frozen(d.service(home, {"TARVOQC_WATCH_FREEZE=" + freeze}));
            ASSERT_TRUE(waitUntil([&] { return processState(frozen.pid()) == 'T'; }, 60s));
            if (step == std::string("half copied")) {
                // What a crash in the middle of the copy leaves: half the bytes under the temp
                // name the journal names ("<size>:<temp><size>:<final>").
                fs::path journal;
                for (const auto& e : fs::recursive_directory_iterator(d.src / ".tarvoqc")) {
                    journal = e.path().extension() == ".move" ? e.path() : journal;
                }
                const std::string plan = test::readFile(journal);
                const std::size_t colon = plan.find(':');
                const std::string temp = plan.substr(colon + 1, std::stoul(plan.substr(0, colon)));
                test::writeFile(temp, bytes.substr(0, bytes.size() / 2));
            }
            frozen.signal(SIGKILL);
            frozen.waitFor(10s);
        }
        const test::CommandResult again = test::runCommand(d.service(home, {}, {"--once"}));
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_TRUE(d.expectEachClipOnce().empty()) << "moved by the second run";
        const auto lines = d.log(home);
        EXPECT_GE(std::count(lines.begin(), lines.end(),
                             "Moved " + (d.src / "clip.mxf").string() + " -> " +
                                 (d.good / "clip.mxf").string()),
                  1);
    }
}

// An upload written by another user that pauses longer than the settle time: the service,
// which may not lease that user's file, waits for a second sighting of the same version a
// settle time later, so the half-written clip is never taken.
TEST(WatchService, AStalledUploadOfAnotherUserIsNotTakenHalfWritten)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to write the upload as another user than the service";
    }
    Delivery d;
    const fs::path home = d.home(0, 3);
    std::vector<std::string> argv = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const auto service = d.service(home, {});
    argv.insert(argv.end(), service.begin(), service.end());
    test::ChildProcess asNobody(argv);

    const std::string bytes = test::readFile(test::testClip("mpeg2_pcm.mxf"));
    d.dropped["upload.mxf"] = bytes;
    {
        // Root writes half, pauses longer than the settle time (3 s) but less than two, and
        // then the rest; its descriptor stays open all along, unseen by the service.
        std::FILE* upload = std::fopen((d.src / "upload.mxf").c_str(), "wb");
        ASSERT_NE(upload, nullptr);
        std::fwrite(bytes.data(), 1, bytes.size() / 2, upload);
        std::fflush(upload);
        std::this_thread::sleep_for(4500ms);
        std::fwrite(bytes.data() + bytes.size() / 2, 1, bytes.size() - bytes.size() / 2, upload);
        std::fclose(upload);
    }
    EXPECT_TRUE(waitUntil([&] { return fs::exists(d.good / "upload.mxf.qcout"); }, 60s));
    asNobody.signal(SIGTERM);
    EXPECT_EQ(asNobody.waitFor(30s), 0);
    EXPECT_TRUE(d.expectEachClipOnce().empty());
    EXPECT_EQ(test::readFile(d.good / "upload.mxf"), bytes) << "the whole upload, not half";
}

// Clips whose document cannot be written beside them, links to clips, names too long for
// "<name>.qcout": each ends up once with its document, and the log says what happened.
TEST(WatchService, DocumentsLinksAndLongNames)
{
    Delivery d;
    const std::string clean = test::readFile(test::testClip("cover.mp3"));
    const std::string longName = std::string(251, 'n') + ".mp3"; // 255 bytes
    d.drop("nodoc.mp3", tinyClip(1));
    d.drop(longName, tinyClip(2));
    d.drop("target.mp3", tinyClip(3));
    fs::create_symlink(d.src / "target.mp3", d.src / "link.mp3");
    // A folder under the document's name: the document cannot be written in GOOD.
    fs::create_directory(d.good / "nodoc.mp3.qcout");
    const fs::path home = d.home(0);
    const test::CommandResult run = test::runCommand(d.service(home, {}, {"--once"}));
    EXPECT_EQ(run.status, 0) << run.err;
    fs::remove(d.good / "nodoc.mp3.qcout");
    fs::remove(d.src / "link.mp3");

    EXPECT_EQ(d.expectEachClipOnce(), std::vector<std::string>{"nodoc.mp3"});
    const auto lines = d.log(home);
    const auto has = [&](const std::string& start) {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& l) { return l.starts_with(start); });
    };
    EXPECT_TRUE(has("Skipped link " + (d.src / "link.mp3").string()));
    EXPECT_TRUE(has("Move failed (-25) Cannot write the result document " +
                    (d.good / "nodoc.mp3.qcout").string()));
    EXPECT_TRUE(has("Moved " + (d.src / longName).string()));
    EXPECT_TRUE(hasDocument(d.good / longName));
}

// GOOD on a file system with room for the clip but not for its document.
TEST(WatchService, AFullGoodFolderKeepsTheClipWithItsDocumentInTheSource)
{
    Delivery d;
    const std::string bytes = test::readFile(test::testClip("mpeg2_pcm.mxf"));
    const std::string size = std::to_string((bytes.size() / 4096 + 1) * 4096);
    if (::mount("tarvoqc-test", d.good.c_str(), "tmpfs", 0, ("size=" + size).c_str()) != 0) {
        GTEST_SKIP() << "a small file system cannot be mounted here: " << std::strerror(errno);
    }
    d.drop("clip.mxf", bytes);
    const fs::path home = d.home(0);
    const test::CommandResult run = test::runCommand(d.service(home, {}, {"--once"}));
    const auto lines = d.log(home);
    const std::vector<std::string> stayed = d.expectEachClipOnce();
    ::umount(d.good.c_str());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(stayed, std::vector<std::string>{"clip.mxf"});
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
        return l.starts_with("Move failed (-25) Cannot write the result document");
    }));
}

} // namespace
} // namespace tarvoqc
