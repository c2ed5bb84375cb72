#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "batch/safetransfer.h"
#include "batch/safetransfer_fault.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using test::readFile;
using test::TempDir;
using test::writeFile;

// Bytes that differ from block to block, so a block written twice or out of place shows.
std::string makeBytes(std::size_t size, std::uint32_t seed = 1)
{
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

// Temp files of a transfer ("....tmp", or "....tmp-" during the rename probe).
std::vector<std::string> tempFilesIn(const fs::path& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename().string();
        if (name.ends_with(".tmp") || name.ends_with(".tmp-")) {
            names.push_back(name);
        }
    }
    return names;
}

// Sources big enough for the watcher to catch the transfer in the wanted phase; a transfer
// that outran it is repeated with a bigger one.
const std::size_t kRaceSizes[] = {8u << 20, 32u << 20, 128u << 20};

// Runs SafeTransfer (SafeMove with move) in a child process after setup, which may drop
// privileges or lower limits for that process only; gives the result code and error text.
std::pair<std::int32_t, std::string> transferInChild(const fs::path& dest, const fs::path& src,
                                                     std::uint32_t flags,
                                                     const std::function<bool()>& setup,
                                                     bool move = false)
{
    const std::optional<std::string> out = test::runInChild([&]() -> std::optional<std::string> {
        if (!setup()) {
            return std::nullopt;
        }
        TransferProgress record;
        const std::int32_t code = (move ? SafeMove : SafeTransfer)(dest.string(), src.string(),
                                                                   flags, &record, nullptr, {});
        return std::to_string(code) + " " + record.error();
    });
    if (!out) {
        return {1, "child setup failed"};
    }
    return {std::stoi(*out), out->substr(out->find(' ') + 1)};
}

// text equals pattern with "{dir}" standing for dir and each "#" for one digit.
bool matchesPattern(const std::string& text, std::string pattern, const fs::path& dir)
{
    for (auto at = pattern.find("{dir}"); at != std::string::npos; at = pattern.find("{dir}")) {
        pattern.replace(at, 5, dir.string());
    }
    return text.size() == pattern.size() &&
           std::equal(text.begin(), text.end(), pattern.begin(),
                      [](char t, char p) { return p == '#' ? t >= '0' && t <= '9' : t == p; });
}

void fillNumberedNames(const fs::path& folder, int last = 999)
{
    for (int n = 1; n <= last; ++n) {
        writeFile(folder / ("clip (" + std::to_string(n) + ").mxf"), "taken");
    }
}

TEST(SafeTransfer, CopiesEverySizeAndFollowsTheFlagsOverAnExistingDestination)
{
    const auto rw = fs::perms::owner_read | fs::perms::owner_write;
    const auto shared = rw | fs::perms::group_read | fs::perms::others_read;
    const auto V = TransferVerify, U = TransferUnique, O = TransferOverwrite;
    // What is under the names of the destination's folder before the transfer: nothing, an
    // older "clip.mxf", or that and "clip (1).mxf" to "clip (999).mxf" too.
    enum Before { Nothing, Older, AllNumbers };
    // size, flags, withRecord, move, mode, before, code, file holding the copy or error text
    const std::tuple<std::size_t, std::uint32_t, bool, bool, fs::perms, Before, std::int32_t,
                     const char*>
        cases[] = {{0, 0, true, false, shared, Nothing, 0, "clip.mxf"},
                   {0, V, true, false, rw, Nothing, 0, "clip.mxf"},
                   {1, V, true, true, rw, Nothing, 0, "clip.mxf"},
                   {65'535, 0, true, false, shared, Nothing, 0, "clip.mxf"},
                   {65'536, V, true, false, shared, Nothing, 0, "clip.mxf"},
                   {65'537, 0, false, false, fs::perms::owner_read, Nothing, 0, "clip.mxf"},
                   {200'003, V, false, true, shared, Nothing, 0, "clip.mxf"},
                   {1 << 20, V, true, false, rw | fs::perms::group_write, Nothing, 0, "clip.mxf"},
                   {150'000, V, true, false, rw, Older, -4, "Cannot copy, output exists"},
                   {150'000, U, true, false, rw, AllNumbers, -3, "Cannot generate output filename"},
                   {150'000, U | V, true, false, rw, Older, 0, "clip (1).mxf"},
                   {150'000, O, true, false, rw, Older, 0, "clip.mxf"},
                   {150'000, O | U, true, false, rw, AllNumbers, 0, "clip.mxf"}};
    for (const auto& [size, flags, withRecord, move, mode, before, code, landsIn] : cases) {
        SCOPED_TRACE(testing::Message() << "size " << size << " flags " << flags << " move " << move
                                        << " before " << before);
        TempDir dir;
        const fs::path src = dir / "in.mxf";
        const std::string bytes = makeBytes(size, static_cast<std::uint32_t>(size + flags));
        writeFile(src, bytes);
        fs::permissions(src, mode);
        // A folder whose paths are longer than some systems allow.
        const fs::path out = dir / std::string(90, 'a') / std::string(90, 'b') /
                             std::string(90, 'c') / std::string(90, 'd');
        fs::create_directories(out);
        const fs::path dest = out / "clip.mxf";
        if (before != Nothing) {
            writeFile(dest, "older clip");
        }
        if (before == AllNumbers) {
            fillNumberedNames(out);
        }

        TransferProgress record;
        std::string finalPath;
        const std::int32_t rc = (move ? SafeMove : SafeTransfer)(
            dest.string(), src.string(), flags, withRecord ? &record : nullptr, &finalPath, {});
        EXPECT_EQ(rc, code) << record.error();
        EXPECT_EQ(fs::exists(src), !move);
        if (!move) {
            EXPECT_EQ(readFile(src), bytes);
        }
        EXPECT_TRUE(tempFilesIn(out).empty());
        if (code != 0) {
            EXPECT_EQ(record.error(), landsIn);
            EXPECT_EQ(record.status(), "Output exists " + dest.string());
            EXPECT_EQ(readFile(dest), "older clip");
            continue;
        }
        EXPECT_EQ(finalPath, (out / landsIn).string());
        EXPECT_EQ(readFile(finalPath), bytes);
        EXPECT_EQ(fs::status(finalPath).permissions(), mode) << "the copy keeps the source's mode";
        if (finalPath != dest.string()) {
            EXPECT_EQ(readFile(dest), "older clip");
        }
        // A replaced clip is gone, not kept under another name.
        EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()),
                  (finalPath != dest.string() ? 2 : 1) + (before == AllNumbers ? 999 : 0));
        if (withRecord) {
            const bool replaced = (flags & O) != 0 && before != Nothing;
            EXPECT_EQ(record.status(), replaced ? "Overwriting dest " + dest.string()
                                       : (flags & V) != 0 || move ? std::string("Verifying")
                                                                  : "Open input " + src.string());
            EXPECT_EQ(record.error(), "");
            EXPECT_DOUBLE_EQ(record.ratio(), size == 0 ? 0.0 : 1.0);
        }
    }
}

// Even with TransferOverwrite, which could otherwise replace what is under the destination.
TEST(SafeTransfer, RefusesBadNamesAndSourcesWithoutLeavingAnything)
{
    TempDir dir;
    fs::create_directory(dir / "out");
    const std::string dest = (dir / "out" / "clip.mxf").string();
    const std::string src = (dir / "in.mxf").string();
    const std::string folder = (dir / "folder.mxf").string();
    writeFile(src, "source bytes");
    fs::create_directories(dir / "folder.mxf" / "inside");
    ASSERT_EQ(::mkfifo((dir / "fifo.mxf").c_str(), 0644), 0);
    // Another program writing the source: a lease shows it, so without leases the row is moot.
    const std::string held = (dir / "held.mxf").string();
    writeFile(held, makeBytes(100'000));
    const int probe = ::open(held.c_str(), O_RDONLY);
    const bool leases = ::fcntl(probe, F_SETLEASE, F_RDLCK) == 0;
    ::fcntl(probe, F_SETLEASE, F_UNLCK);
    ::close(probe);
    const int writer = ::open(held.c_str(), O_WRONLY | O_APPEND);

    // destination, source, code, error
    const std::tuple<std::string, std::string, std::int32_t, std::string> cases[] = {
        {"", "", -1, "Invalid input name"},
        {dest, "", -1, "Invalid input name"},
        {dest, std::string(src + '\0' + "x", src.size() + 2), -1, "Invalid input name"},
        {"", src, -1, "Invalid output name"},
        {(dir / "out").string() + "/", src, -1, "Invalid output name"},
        {dest, (dir / "missing.mxf").string(), -1,
         "Cannot check " + (dir / "missing.mxf").string()},
        {dest, folder, -1, "Cannot open input " + folder},
        {dest, (dir / "fifo.mxf").string(), -1, "Cannot open input " + (dir / "fifo.mxf").string()},
        {dest, held, -1, "Cannot open input " + held},
        // The source's own entry by another spelling: replacing it would delete the clip once
        // the caller removes the source of the move.
        {(dir / "./in.mxf").string(), src, -4, "Cannot copy, output exists"},
        {folder, src, -41, "Cannot delete " + folder}};
    for (const auto& [to, from, code, error] : cases) {
        SCOPED_TRACE(error);
        if (from == held && !leases) {
            continue;
        }
        TransferProgress record;
        EXPECT_EQ(SafeTransfer(to, from, TransferOverwrite | TransferVerify, &record), code);
        EXPECT_EQ(record.error(), error);
        EXPECT_TRUE(fs::is_empty(dir / "out"));
        EXPECT_TRUE(tempFilesIn(dir.path()).empty());
        EXPECT_TRUE(fs::is_directory(dir / "folder.mxf" / "inside"));
        EXPECT_EQ(readFile(src), "source bytes");
    }
    ::close(writer);
}

// Something happens to the destination or the source at a chosen point of the transfer.
TEST(SafeTransfer, EventsDuringTheTransfer)
{
    enum class Event { Appear, AppearTempLost, Cancel, Rewrite, Grow, Shrink, Replace };
    // name, SafeMove (deletes the source only when it is still the one copied), flags, all
    // numbered names taken, when, event, code, error (see matchesPattern), file of the copy
    using Case =
        std::tuple<const char*, bool, std::uint32_t, bool, bool (*)(const TransferProgress::State&),
                   Event, std::int32_t, const char*, const char*>;
    using enum Event;
    // In the copy, and in the first half of the verify.
    const auto cp = [](const TransferProgress::State& s) {
        return s.status.starts_with("Open input") && s.ratio > 0.0 && s.ratio < 1.0;
    };
    const auto vf = [](const TransferProgress::State& s) {
        return s.status == "Verifying" && s.ratio > 0.5 && s.ratio < 0.75;
    };
    const auto V = TransferVerify, U = TransferUnique, O = TransferOverwrite;
    const char* kFail = "Verify proces failed.";
    const char* kTemp = "{dir}/##-##-#### ######.tmp";
    const std::string renameOut = std::string("Cannot rename out ") + kTemp + " to {dir}/clip.mxf";
    const std::string renameTemp = std::string("Cannot rename temp file ") + kTemp;
    const std::string renameTo = renameTemp + " to {dir}/clip.mxf";
    const Case cases[] = {
        {"destination appears", false, 0, false, cp, Appear, -45, renameTo.c_str(), ""},
        {"appears, unique", false, U, false, cp, Appear, 0, "", "clip (1).mxf"},
        {"appears, unique, no free name", false, U | V, true, cp, Appear, -43,
         "Cannot generate output filename", ""},
        {"appears, overwrite", false, O | V, false, cp, Appear, 0, "", "clip.mxf"},
        {"appears, temp lost, overwrite", false, O, false, cp, AppearTempLost, -42,
         renameOut.c_str(), ""},
        {"appears, temp lost, unique", false, U, false, cp, AppearTempLost, -44, renameTemp.c_str(),
         ""},
        {"cancel in copy before verify", false, V, false, cp, Cancel, 0, "", ""},
        {"cancel in verify", false, V, false, vf, Cancel, 0, "", ""},
        {"cancel in move", true, 0, false, cp, Cancel, 0, "", ""},
        {"source rewritten", false, V, false, vf, Rewrite, -32, kFail, ""},
        {"source grown", false, V, false, vf, Grow, -32, kFail, ""},
        {"source grown in move", true, 0, false, vf, Grow, -32, kFail, ""},
        {"source shrunk", false, V, false, vf, Shrink, -32, kFail, ""},
        {"source shrunk in copy", false, 0, false, cp, Shrink, -22,
         "Cannot read input file {dir}/in.mxf", ""},
        {"source replaced in copy", false, 0, false, cp, Replace, 0, "", "clip.mxf"},
        // A move that cannot delete what it copied takes its copy back.
        {"source replaced in move", true, 0, false, cp, Replace, kSourceChanged,
         "Source {dir}/in.mxf changed during the move; it is kept", ""},
    };
    for (const auto& [name, move, flags, allNumbersTaken, when, event, code, error, copyIn] :
         cases) {
        SCOPED_TRACE(name);
        bool raced = false;
        for (const std::size_t size : kRaceSizes) {
            TempDir dir;
            const fs::path dest = dir / "clip.mxf";
            const fs::path src = dir / "in.mxf";
            std::string bytes = makeBytes(size, flags);
            writeFile(src, bytes);
            if (allNumbersTaken) {
                fillNumberedNames(dir.path());
            }
            std::atomic<std::int32_t> cancel{0};
            TransferProgress record(&cancel);
            const auto act = [&] {
                switch (event) {
                case AppearTempLost:
                    for (const std::string& name : tempFilesIn(dir.path())) {
                        fs::remove(dir / name);
                    }
                    [[fallthrough]];
                case Appear:
                    writeFile(dest, "late arrival");
                    break;
                case Cancel:
                    cancel = 1;
                    break;
                case Rewrite:
                    bytes[bytes.size() - 10] ^= 0x55;
                    writeFile(src, bytes);
                    break;
                case Grow:
                    bytes += "tail";
                    writeFile(src, bytes);
                    break;
                case Shrink:
                    bytes.pop_back();
                    fs::resize_file(src, bytes.size());
                    break;
                case Replace:
                    writeFile(dir / "new.mxf", "a newer clip");
                    fs::rename(dir / "new.mxf", src);
                    break;
                }
            };
            // A second thread watches the record and acts under its lock at the first report
            // where `when` holds: the transfer is held at that exact point until it is done.
            std::atomic<bool> ended{false};
            std::atomic<bool> acted{false};
            std::thread watcher([&] {
                while (!ended && !acted) {
                    acted = record.withLock([&](const TransferProgress::State& s) {
                        if (!when(s)) {
                            return false;
                        }
                        act();
                        return true;
                    });
                    std::this_thread::sleep_for(std::chrono::microseconds(100));
                }
            });
            std::string finalPath;
            const std::int32_t rc = (move ? SafeMove : SafeTransfer)(
                dest.string(), src.string(), flags, &record, &finalPath, {});
            ended = true;
            watcher.join();
            if (!acted) {
                continue; // the transfer outran the watcher: try a bigger one
            }
            raced = true;
            const TransferProgress::State state = record.snapshot();
            EXPECT_EQ(rc, code) << state.error;
            EXPECT_TRUE(matchesPattern(state.error, error, dir.path())) << state.error;
            // The copy holds the file as it was opened; the name keeps whatever is under it.
            const std::string copied = bytes;
            if (event == Replace) {
                bytes = "a newer clip";
            }
            EXPECT_EQ(readFile(src), bytes);
            EXPECT_TRUE(tempFilesIn(dir.path()).empty());
            if (*copyIn != '\0') {
                EXPECT_EQ(finalPath, (dir / copyIn).string());
                EXPECT_EQ(readFile(finalPath), copied);
            } else if (event == Appear || event == AppearTempLost) {
                EXPECT_EQ(readFile(dest), "late arrival");
            } else {
                EXPECT_FALSE(fs::exists(dest));
            }
            if (event == Cancel) {
                EXPECT_EQ(state.status, "Exit signal, cleaning up.");
            }
            break;
        }
        EXPECT_TRUE(raced) << "every transfer ended before the watcher could act";
    }
}

TEST(SafeTransfer, TempNamesTakenInTheSameSecond)
{
    // Names taken: "stamp.tmp", then "stamp (1).tmp" ... for the prepared second.
    const std::tuple<const char*, int, std::int32_t, const char*> cases[] = {
        // "stamp.tmp" stands for a first transfer's temp file; a non-empty folder under the
        // second transfer's probe name stops that one at its probe, which names its temp.
        {"second transfer in the same second", 1, -7,
         "Cannot rename temp file {dir}/##-##-#### ###### (1).tmp"},
        {"no free temp name", 1000, -5, "Cannot generate output temp filename"},
    };
    for (const auto& [label, taken, code, error] : cases) {
        SCOPED_TRACE(label);
        bool inTime = false;
        // The names are made for a second a little ahead; the transfer starts when the clock
        // reaches it. A machine too slow to make them in time gets a longer lead.
        for (int lead = 2; lead <= 64 && !inTime; lead *= 2) {
            TempDir dir;
            writeFile(dir / "in.mxf", makeBytes(5000));
            const std::time_t target = std::time(nullptr) + lead;
            std::tm local = {};
            ::localtime_r(&target, &local);
            char text[64];
            std::strftime(text, sizeof text, "%d-%m-%Y %H%M%S", &local);
            const std::string stamp = text;
            writeFile(dir / (stamp + ".tmp"), "first transfer");
            for (int n = 1; n < taken; ++n) {
                const fs::path name = dir / (stamp + " (" + std::to_string(n) + ").tmp");
                ::close(::creat(name.c_str(), 0644));
            }
            fs::create_directories(dir / (stamp + " (1).tmp-") / "x");
            if (std::time(nullptr) >= target) {
                continue; // too slow for this lead
            }
            while (std::time(nullptr) < target) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            TransferProgress record;
            const std::int32_t rc =
                SafeTransfer((dir / "clip.mxf").string(), (dir / "in.mxf").string(), 0, &record);
            inTime = std::time(nullptr) == target;
            if (!inTime) {
                continue; // the clock ran past the prepared second
            }
            EXPECT_EQ(rc, code);
            EXPECT_TRUE(matchesPattern(record.error(), error, dir.path())) << record.error();
            EXPECT_EQ(readFile(dir / (stamp + ".tmp")), "first transfer");
            EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()),
                      taken + 2);
        }
        EXPECT_TRUE(inTime) << "the clock outran every attempt";
    }
}

// A source folder that does not allow changes stops the deletion of a moved source: the
// source stays, and the copy is taken back.
TEST(SafeTransfer, MoveOutOfAClosedFolderKeepsTheSourceAndTakesTheCopyBack)
{
    TempDir dir;
    const std::string bytes = makeBytes(10'000);
    const fs::path src = dir / "in" / "clip.mxf";
    fs::create_directory(dir / "in");
    writeFile(src, bytes);
    // The child may run as nobody: it must reach the source and write the copy beside "in".
    fs::permissions(dir.path(), fs::perms::all);
    fs::permissions(src, fs::perms::owner_read | fs::perms::others_read);
    fs::permissions(dir / "in", fs::perms::owner_read | fs::perms::owner_exec |
                                    fs::perms::others_read | fs::perms::others_exec);
    // Folder permissions do not bind root: run the transfer as nobody then.
    const bool root = ::geteuid() == 0;
    const auto [code, error] = transferInChild(
        dir / "clip.mxf", src, 0, [root] { return !root || test::dropToNobody(); }, true);
    EXPECT_EQ(code, kSourceNotDeleted);
    EXPECT_EQ(error, "Cannot delete source " + src.string());
    EXPECT_EQ(readFile(src), bytes);
    EXPECT_FALSE(fs::exists(dir / "clip.mxf")) << "no second copy stays behind";
    EXPECT_TRUE(tempFilesIn(dir.path()).empty());
}

// A file size limit makes the temp file full at a chosen byte, as a full disk would; the
// other failures come from the fault seam.
TEST(SafeTransfer, FailuresAfterTheTempIsMadeRemoveIt)
{
    const std::tuple<rlim_t, std::int32_t, const char*> cases[] = {
        {2 * 65'536, -21, "Cannot write to output file"}, // the third block fits not at all
        {0, -8, "Cannot rename temp file {dir}/##-##-#### ######.tmp-"},
        {0, -9, "Cannot open output file {dir}/##-##-#### ######.tmp"},
        {0, -30, "Memory alloc failed, exiting."},
        {0, -31, "Cannot read output file"},
        {0, -33, "Problem while verifying, exiting."},
    };
    for (const auto& [limit, code, pattern] : cases) {
        SCOPED_TRACE(pattern);
        TempDir dir;
        const std::string bytes = makeBytes(200'000);
        writeFile(dir / "in.mxf", bytes);
        const auto [rc, error] =
            transferInChild(dir / "clip.mxf", dir / "in.mxf", TransferVerify, [&] {
                g_safeTransferFault = limit == 0 ? code : 0;
                const rlimit fileLimit{limit, limit};
                return limit == 0 || (::signal(SIGXFSZ, SIG_IGN) != SIG_ERR &&
                                      ::setrlimit(RLIMIT_FSIZE, &fileLimit) == 0);
            });
        EXPECT_EQ(rc, code);
        EXPECT_TRUE(matchesPattern(error, pattern, dir.path())) << error;
        EXPECT_FALSE(fs::exists(dir / "clip.mxf"));
        EXPECT_TRUE(tempFilesIn(dir.path()).empty());
        EXPECT_EQ(readFile(dir / "in.mxf"), bytes);
    }
}

TEST(UniqueFileName, NumbersTakenNamesFromOneTo999)
{
    TempDir dir;
    const std::string d = dir.path().string() + "/";
    fs::create_directory(dir / "v1.2");
    for (const char* name :
         {"clip.mxf", "clip", "v1.2/clip", ".profile", "a.tar.gz", "two (1).ts", "two.ts"}) {
        writeFile(d + name, "x");
    }
    // 999 is the last number tried; there is no 1000.
    for (const auto& [folder, last] : {std::pair{"last", 998}, {"full", 999}}) {
        fs::create_directory(d + folder);
        writeFile(d + folder + "/clip.mxf", "x");
        fillNumberedNames(d + folder, last);
    }

    const std::tuple<std::string, bool, std::string> cases[] = {
        {"", false, ""},
        {d + "free.mxf", true, d + "free.mxf"},
        {d + "clip.mxf", true, d + "clip (1).mxf"},
        {d + "clip", true, d + "clip (1)"},
        {d + "v1.2/clip", true, d + "v1.2/clip (1)"},
        {d + ".profile", true, d + ".profile (1)"},
        {d + "a.tar.gz", true, d + "a.tar (1).gz"},
        {d + "two.ts", true, d + "two (2).ts"},
        {d + "last/clip.mxf", true, d + "last/clip (999).mxf"},
        {d + "full/clip.mxf", false, d + "full/clip.mxf"}};
    for (const auto& [in, ok, out] : cases) {
        SCOPED_TRACE(in);
        std::string path = in;
        EXPECT_EQ(UniqueFileName(path), ok);
        EXPECT_EQ(path, out);
    }
}

TEST(FileExists, AnythingUnderTheNameCounts)
{
    TempDir dir;
    writeFile(dir / "clip.mxf", "x");
    writeFile(dir / "locked.mxf", "x");
    fs::permissions(dir / "locked.mxf", fs::perms::none);
    fs::create_symlink(dir / "nowhere", dir / "dangling");
    const int writer = ::open((dir / "clip.mxf").c_str(), O_WRONLY);

    EXPECT_TRUE(FileExists((dir / "clip.mxf").string())); // held open for writing
    EXPECT_TRUE(FileExists((dir / "locked.mxf").string()));
    EXPECT_TRUE(FileExists((dir / "dangling").string()));
    EXPECT_TRUE(FileExists(dir.path().string()));
    EXPECT_FALSE(FileExists((dir / "missing").string()));
    EXPECT_FALSE(FileExists((dir / "clip.mxf" / "below").string()));
    EXPECT_FALSE(FileExists(""));
    ::close(writer);
}

} // namespace
} // namespace tarvoqc
