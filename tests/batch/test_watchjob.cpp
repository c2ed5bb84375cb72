#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "batch/watchjob.h"
#include "batch/watchservice.h"
#include "batch/workerprocess.h"
#include "engine/clipchecker.h"
#include "results/dailylog.h"
#include "results/textcodec.h"
#include "results/xmlnode.h"
#include "settings/profilestore.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::readFile;
using test::writeFile;

constexpr const char* kClean = "mpeg2_pcm.mxf";           // 5/5 OK
constexpr const char* kDamaged = "jump_video_highest.ts"; // 1/5 Very BAD

// Backdates a file past the settle time.
void age(const fs::path& path)
{
    fs::last_write_time(path, fs::file_time_type::clock::now() - 1min);
}

// A clip whose check takes a while: the long test clip three times over (a transport
// stream may be joined byte for byte).
std::string longClipBytes()
{
    const std::string one = readFile(test::testClip("long.ts"));
    return one + one + one;
}

// One watch job over fresh folders src/, good/, bad/ with its daily log in logs/.
struct Watch
{
    test::TempDir dir;
    fs::path src = dir / "src";
    fs::path good = dir / "good";
    fs::path bad = dir / "bad";
    DailyLog log;
    WatchJob job{&log};

    Watch()
    {
        // Room for a worker that runs as nobody (see start).
        fs::permissions(dir.path(), fs::perms::all);
        for (const fs::path& folder : {src, good, bad, dir / "logs"}) {
            fs::create_directory(folder);
            fs::permissions(folder, fs::perms::all);
        }
        log.setFolder((dir / "logs").string(), "QC ");
        log.setEnabled(1);
    }

    // Copies bytes into the folder under name, modified a minute ago; gives its path.
    fs::path drop(const std::string& bytes, const std::string& name, const fs::path& folder)
    {
        writeFile(folder / name, bytes);
        age(folder / name);
        return folder / name;
    }

    // Without firstPass it returns as soon as the worker runs.
    void start(int threshold, bool moveGood, bool moveBad, bool slashes = true,
               bool asNobody = false, bool firstPass = true)
    {
        const std::string end = slashes ? "/" : "";
        job.setSettings({.enabled = true,
                         .sourceFolder = src.string() + end,
                         .goodFolder = good.string() + end,
                         .badFolder = bad.string() + end,
                         .moveGood = moveGood,
                         .moveBad = moveBad,
                         .goodThreshold = threshold});
        // With asNobody the worker has the file rights of nobody when the tests run as
        // root, who ignores folder permissions: a thread keeps the rights it was made with.
        const bool drop = asNobody && ::geteuid() == 0;
        if (drop) {
            ::setfsgid(65534);
            ::setfsuid(65534);
        }
        const bool started = job.Start();
        if (drop) {
            ::setfsuid(0);
            ::setfsgid(0);
        }
        ASSERT_TRUE(started);
        ASSERT_TRUE(!firstPass ||
                    job.waitForStatus([](const auto& s) { return s.passes >= 1; }, 120s));
    }

    // Runs one whole pass from now on.
    void pass()
    {
        const std::uint64_t before = job.status().passes;
        job.wakeUp();
        ASSERT_TRUE(job.waitForStatus([before](const auto& s) { return s.passes > before; }, 120s));
    }

    // The texts of the log's entries, without their time stamps.
    std::vector<std::string> logLines() const
    {
        std::vector<std::string> lines;
        if (log.path().empty()) {
            return lines;
        }
        const std::string text = utf16leToUtf8(readFile(log.path()));
        for (std::size_t at = text.find('\t'); at != std::string::npos;
             at = text.find('\t', at + 1)) {
            const std::size_t end = text.find("\r\n", at);
            lines.push_back(text.substr(at + 1, end == std::string::npos ? end : end - at - 1));
        }
        return lines;
    }

    // Files of a transfer or a document save that were never finished.
    std::vector<std::string> leftovers() const
    {
        std::vector<std::string> names;
        for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
            const std::string name = entry.path().filename().string();
            if (name.ends_with(".tmp") || name.find(".tmp-") != std::string::npos) {
                names.push_back(name);
            }
        }
        return names;
    }
};

// The clip that a job has claimed (moved into its claim folder) while it checks it.
fs::path claimed(const Watch& w)
{
    for (const auto& entry : fs::recursive_directory_iterator(w.src / ".tarvoqc")) {
        if (entry.path().filename() == "clip.mxf") {
            return entry.path();
        }
    }
    return {};
}

// The clip is where expected, byte for byte, with its result document beside it naming it
// and its score, and nowhere else among the job's folders.
void expectClipAt(const Watch& w, const fs::path& where, const fs::path& original,
                  const std::string& scoreText)
{
    ASSERT_TRUE(fs::exists(where)) << where;
    EXPECT_EQ(test::sha256sumOf(where), test::sha256sumOf(original));
    XmlNode document;
    ASSERT_TRUE(document.Load(where.string() + ".qcout")) << where;
    const std::string xml = document.saveText();
    EXPECT_NE(xml.find("File=\"" + where.string() + "\""), std::string::npos) << xml;
    EXPECT_NE(xml.find("Result=\"" + scoreText + "\""), std::string::npos) << xml;
    for (const fs::path& folder : {w.src, w.good, w.bad}) {
        if (folder != where.parent_path()) {
            EXPECT_FALSE(fs::exists(folder / where.filename())) << folder;
            EXPECT_FALSE(fs::exists(folder / (where.filename().string() + ".qcout"))) << folder;
        }
    }
}

TEST(WatchJob, ThresholdAndMovesDecideWhereEachClipEnds)
{
    enum Place { Src, Good, Bad };
    // Threshold, move GOOD, move BAD, where the clean and the damaged clip end, how many of
    // the two are BAD.
    const std::tuple<int, bool, bool, Place, Place, int> cases[] = {
        {3, false, true, Src, Bad, 1},
        {3, true, false, Good, Src, 1},
        {0, true, true, Good, Good, 0},
        {1, true, true, Good, Good, 0},
        {5, true, true, Good, Bad, 1},
        // Thresholds nobody can pick make no clip GOOD.
        {9, true, true, Bad, Bad, 2},
        {-1, true, true, Bad, Bad, 2},
    };
    const std::string cleanBytes = readFile(test::testClip(kClean));
    const std::string damagedBytes = readFile(test::testClip(kDamaged));
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        const auto& [threshold, moveGood, moveBad, cleanEnd, damagedEnd, bad] = cases[i];
        SCOPED_TRACE(testing::Message() << "row " << i);
        Watch w;
        const fs::path clean = w.drop(cleanBytes, "clean.MXF", w.src);
        const fs::path damaged = w.drop(damagedBytes, "damaged.ts", w.src);
        // Only clip names are taken, and folders are left alone.
        for (const char* name : {"clip.txt", "a.ts.bak"}) {
            w.drop(cleanBytes, name, w.src);
        }
        fs::create_directory(w.src / "dir.mxf");
        // Folders with and without their trailing "/" in turn.
        w.start(threshold, moveGood, moveBad, i % 2 == 0);
        w.pass(); // a second look logs and moves nothing more

        const auto folderOf = [&](Place p) {
            return p == Src ? w.src : p == Good ? w.good : w.bad;
        };
        expectClipAt(w, folderOf(cleanEnd) / "clean.MXF", test::testClip(kClean), "5/5 OK");
        expectClipAt(w, folderOf(damagedEnd) / "damaged.ts", test::testClip(kDamaged),
                     "1/5 Very BAD");
        std::vector<std::string> expected = {"QC 5/5 OK " + clean.string(),
                                             "QC 1/5 Very BAD " + damaged.string()};
        for (const auto& [path, place] : {std::pair{clean, cleanEnd}, {damaged, damagedEnd}}) {
            if (place != Src) {
                expected.push_back("Moved " + path.string() + " -> " +
                                   (folderOf(place) / path.filename()).string());
            }
        }
        std::vector<std::string> lines = w.logLines();
        std::sort(lines.begin(), lines.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(lines, expected);
        // The status counts each logged result once; the newest is one of the two.
        const WatchJobStatus status = w.job.status();
        EXPECT_EQ(status.results, 2u);
        EXPECT_EQ(status.badResults, static_cast<std::uint64_t>(bad));
        EXPECT_TRUE(status.lastPath == clean.string() || status.lastPath == damaged.string());
        EXPECT_EQ(status.lastScore, status.lastPath == clean.string() ? 5 : 1);
        EXPECT_TRUE(w.leftovers().empty());
        for (const char* name : {"clip.txt", "a.ts.bak", "dir.mxf"}) {
            EXPECT_TRUE(fs::exists(w.src / name)) << name;
            EXPECT_FALSE(fs::exists(w.good / name) || fs::exists(w.bad / name)) << name;
        }
    }
}

TEST(WatchJob, SettingsOfSectionJob00)
{
    test::TempDir home;
    const std::string path = (home / "TarvoQC.ini").string();

    writeFile(path, "[Options]\nFolder Clips=/clips/\n");
    const WatchJobSettings set = {.enabled = true,
                                  .sourceFolder = "/in",
                                  .goodFolder = "/good/",
                                  .badFolder = "/bad ", // a blank at the end survives
                                  .moveGood = true,
                                  .moveBad = false,
                                  .goodThreshold = 0};
    ASSERT_TRUE(saveWatchJobSettings(path, set));
    EXPECT_EQ(readFile(path), "[Options]\nFolder Clips=/clips/\n\n[Job00]\nEnabled=1\n"
                              "Source.Folder=/in\nGood.QCTsh=0\nGood.Move.Enable=1\n"
                              "Good.Move.Folder=/good/\nBad.Move.Enable=0\n"
                              "Bad.Move.Folder=\"/bad \"\n");
    EXPECT_EQ(loadWatchJobSettings(path), set);

    for (const auto& [value, threshold] :
         {std::pair{"9", 9}, {"-1", -1}, {"text", -1}, {" 4 ", 4}, {"", 3}}) {
        SCOPED_TRACE(value);
        ASSERT_TRUE(writeProfileString(path, "Job00", "Good.QCTsh", value));
        EXPECT_EQ(loadWatchJobSettings(path).goodThreshold, threshold);
        // Out of range, a threshold makes no clip GOOD, not every clip.
        EXPECT_EQ(isGoodClip(kBestScore, threshold), threshold >= 0 && threshold <= 5);
    }
}

// The watch job grades by the delivery profile of "Job00" (over the one of "Options"): a
// clean clip that is not what the station's profile wants goes to BAD with the rule broken
// in its result document. A profile that does not load is named and not used.
TEST(WatchJob, DeliveryProfileOfTheJobGradesItsClips)
{
    Watch w;
    const std::string ini = (w.dir / "TarvoQC.ini").string();
    const std::string profile = (w.dir / "station.ini").string();
    writeFile(profile, "[Profile]\nName = Station\n[Format]\nContainer = mp4\n");
    writeFile(ini, "[Options]\nCheck.Profile=technical\n[Job00]\nCheck.Profile=" + profile + "\n");
    std::string error;
    const WatchJobSettings loaded = loadWatchServiceSettings(ini, &error);
    ASSERT_NE(loaded.profile, nullptr);
    EXPECT_EQ(loaded.profile->name, "Station");
    EXPECT_EQ(error, "");

    w.start(3, true, true);
    WatchJobSettings settings = w.job.settings();
    settings.profile = loaded.profile;
    w.job.setSettings(settings);
    ASSERT_TRUE(w.job.Start());
    w.drop(readFile(test::testClip(kClean)), "clean.mxf", w.src);
    w.pass();
    ASSERT_TRUE(fs::exists(w.bad / "clean.mxf"));
    const std::string document = test::asciiOfUtf16(readFile(w.bad / "clean.mxf.qcout"));
    EXPECT_NE(document.find("Profile=\"Station\""), std::string::npos) << document;
    EXPECT_NE(document.find("Container mxf, profile wants mp4"), std::string::npos) << document;

    writeFile(profile, "[Format]\nContainer mp4\n");
    EXPECT_EQ(loadWatchServiceSettings(ini, &error).profile, nullptr);
    EXPECT_NE(error.find("station.ini:2: no '=' in the line"), std::string::npos) << error;
}

// A start while running hands new settings to the next pass: disabled, nothing moves;
// enabled with no clip GOOD, the clip goes to the BAD folder.
TEST(WatchJob, NewSettingsReachARunningJobAtTheNextPass)
{
    Watch w;
    const std::string bytes = readFile(test::testClip(kClean));
    w.start(0, true, false);
    WatchJobSettings settings = w.job.settings();
    settings.enabled = false;
    w.job.setSettings(settings);
    ASSERT_TRUE(w.job.Start());
    w.drop(bytes, "late.mxf", w.src);
    w.pass();
    EXPECT_TRUE(fs::exists(w.src / "late.mxf"));
    settings.enabled = true;
    settings.badFolder = w.bad;
    settings.moveBad = true;
    settings.goodThreshold = 9;
    w.job.setSettings(settings);
    ASSERT_TRUE(w.job.Start());
    w.pass();
    EXPECT_TRUE(fs::exists(w.bad / "late.mxf"));
}

TEST(WatchJob, StopEndsALongCheckAndTheWaitAtOnce)
{
    for (const bool duringCheck : {true, false}) {
        SCOPED_TRACE(duringCheck ? "during a check" : "between passes");
        Watch w;
        const std::string bytes = duringCheck ? longClipBytes() : std::string();
        if (duringCheck) {
            w.drop(bytes, "long.ts", w.src);
        }
        w.start(0, true, false, false, false, false);
        ASSERT_TRUE(w.job.waitForStatus(
            [&](const WatchJobStatus& s) {
                return duringCheck ? s.progress > kProgressMax / 10 : s.passes >= 1;
            },
            120s));
        const auto begin = std::chrono::steady_clock::now();
        w.job.Stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
        EXPECT_FALSE(w.job.isRunning());
        // The stopped check decided nothing.
        EXPECT_TRUE(w.logLines().empty());
        if (duringCheck) {
            EXPECT_EQ(readFile(w.src / "long.ts"), bytes);
        }
        EXPECT_TRUE(w.leftovers().empty());
    }
}

// Faults around one clean clip "clip.mxf" bound for the GOOD folder. After the first pass
// the clip must be where the row says, byte for byte, with no temp file anywhere and the
// job still running; after the repair a further pass moves it.
TEST(WatchJob, FaultsNeverLoseAClipNorStopTheJob)
{
    struct Case
    {
        const char* name;
        std::function<void(Watch&)> arrange; // before the first pass
        std::function<void(Watch&)> hold;    // while the clip is being checked
        std::string firstLog; // the log after the first pass (its start), "Moved" or "" for none
        std::function<void(Watch&)> repair; // then one more pass moves the clip
        bool asNobody = false;              // permissions play a part
        bool longClip = false;
        const char* finalName = "clip.mxf";
    };
    static int writer = -1; // the other program's handle of the clip
    rlimit noLimit{};
    ::getrlimit(RLIMIT_FSIZE, &noLimit);
    const std::string clipBytes = readFile(test::testClip(kClean));
    const std::string longBytes = longClipBytes();
    const auto content = [](const std::string& bytes) {
        return [bytes](Watch& w) { w.drop(bytes, "clip.mxf", w.src); };
    };
    const auto away = [](Watch& w) { fs::rename(w.src, w.dir / "away"); };
    const auto back = [](Watch& w) { fs::rename(w.dir / "away", w.src); };
    const auto goodMode = [](fs::perms perms) {
        return [perms](Watch& w) { fs::permissions(w.good, perms); };
    };
    const auto srcMode = [](fs::perms perms) {
        return [perms](Watch& w) { fs::permissions(w.src, perms); };
    };
    const auto nothing = [](Watch&) {};
    const fs::perms readOnly =
        fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec;
    // clang-format off
    const Case cases[] = {
        {"GOOD folder missing", [](Watch& w) { fs::remove(w.good); }, {},
         "Move failed (-6) Cannot open output temp file " ,
         [](Watch& w) { fs::create_directory(w.good); }},
        {"GOOD folder unwritable", goodMode(readOnly), {},
         "Move failed (-6) Cannot open output temp file ", goodMode(fs::perms::all), true},
        {"GOOD folder full",
         [&](Watch&) {
             std::signal(SIGXFSZ, SIG_IGN);
             const rlimit limit{100'000, noLimit.rlim_max};
             ::setrlimit(RLIMIT_FSIZE, &limit);
         }, {}, "Move failed (-51) Error writing to output file",
         [&](Watch&) { ::setrlimit(RLIMIT_FSIZE, &noLimit); std::signal(SIGXFSZ, SIG_DFL); }},
        {"same name in the GOOD folder", [](Watch& w) { writeFile(w.good / "clip.mxf", "older"); },
         {}, "Moved", {}, false, false, "clip (1).mxf"},
        {"GOOD folder is the source folder", [](Watch& w) { w.good = w.src; }, {},
         "Move failed (-4) Cannot copy, output exists", {}},
        {"source folder missing", away, {}, "", back},
        {"source folder unreadable", srcMode(fs::perms::none), {}, "", srcMode(fs::perms::all), true},
        {"source folder removed while watched", {}, away, "", back, false, true},
        {"not a clip", content(readFile(test::testClip("text.mov"))), {}, "Cannot open ", {}},
        {"empty clip", content(""), {}, "Cannot open ", {}},
        {"clip held open for writing",
         [](Watch& w) { writer = ::open((w.src / "clip.mxf").c_str(), O_WRONLY); }, {}, "",
         [](Watch&) { ::close(writer); }},
        {"clip modified just now",
         [](Watch& w) { fs::last_write_time(w.src / "clip.mxf", fs::file_time_type::clock::now()); },
         {}, "", [](Watch& w) { age(w.src / "clip.mxf"); }},
        // While it is checked the clip is in the job's claim folder: changes reach it there.
        {"clip grows during the check", {},
         [](Watch& w) {
             std::FILE* f = std::fopen(claimed(w).c_str(), "ab");
             std::fputs("more", f);
             std::fclose(f);
             age(claimed(w));
         }, "", nothing, false, true},
        {"clip deleted during the check", {}, [](Watch& w) { fs::remove(claimed(w)); }, "",
         {}, false, true},
        {"clip replaced during the check", {},
         [&](Watch& w) {
             const fs::path replacement = w.drop(clipBytes, "new.mxf", w.dir.path());
             fs::rename(replacement, claimed(w));
         }, "", nothing, false, true},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Watch w;
        const std::string& bytes = c.longClip ? longBytes : clipBytes;
        const fs::path clip = w.drop(bytes, "clip.mxf", w.src);
        if (std::string_view(c.name) == "clip held open for writing") {
            // A lease on the file held open for writing shows it as being written; where
            // leases cannot be taken there is nothing to test.
            const int fd = ::open(clip.c_str(), O_RDONLY);
            const bool leases = ::fcntl(fd, F_SETLEASE, F_RDLCK) == 0;
            ::fcntl(fd, F_SETLEASE, F_UNLCK);
            ::close(fd);
            if (!leases) {
                continue;
            }
        }
        if (c.arrange) {
            c.arrange(w);
        }
        const std::string arranged = fs::exists(clip) ? readFile(clip) : bytes;
        const std::string movedLine =
            "Moved " + clip.string() + " -> " + (w.good / c.finalName).string();
        bool held = false;
        std::thread holder;
        if (c.hold) {
            holder = std::thread([&] {
                held = w.job.waitForStatus(
                    [&](const WatchJobStatus& s) { return s.checking == clip.string(); }, 120s);
                c.hold(w);
            });
        }
        w.start(0, true, true, c.asNobody, c.asNobody);
        if (holder.joinable()) {
            holder.join();
            EXPECT_TRUE(held);
        }
        std::vector<std::string> lines = w.logLines();
        const bool moved = c.firstLog == "Moved";
        // A failed move logs its code and the transfer's error; a clip that cannot be opened
        // is named in full.
        const std::string expected = moved                           ? movedLine
                                     : c.firstLog.ends_with("open ") ? c.firstLog + clip.string()
                                                                     : c.firstLog;
        if (c.firstLog.empty()) {
            EXPECT_TRUE(lines.empty()) << lines.front();
        } else {
            ASSERT_FALSE(lines.empty());
            EXPECT_TRUE(lines.back().starts_with(expected)) << lines.back();
        }
        EXPECT_TRUE(w.leftovers().empty());
        EXPECT_TRUE(w.job.isRunning());
        const bool deleted = std::string_view(c.name) == "clip deleted during the check";
        // A source folder moved away takes the clip with it.
        const fs::path source = fs::exists(w.dir / "away") ? w.dir / "away" / "clip.mxf" : clip;
        EXPECT_EQ(fs::exists(source), !moved && !deleted);
        if (!c.hold) {
            // The source stays as it was unless the test changed it.
            EXPECT_TRUE(readFile(moved ? w.good / c.finalName : source) == arranged);
            if (moved) {
                EXPECT_EQ(readFile(w.good / "clip.mxf"), "older");
            }
            w.pass(); // nothing changed: nothing more is logged
            EXPECT_EQ(w.logLines(), lines);
        }
        if (!c.repair) {
            continue;
        }
        c.repair(w);
        const std::string current = readFile(clip);
        w.pass();
        EXPECT_TRUE(w.leftovers().empty());
        EXPECT_FALSE(fs::exists(clip));
        EXPECT_TRUE(readFile(w.good / c.finalName) == current);
        lines = w.logLines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), movedLine);
    }
}

} // namespace
} // namespace tarvoqc

namespace tarvoqc {
namespace {

// A clip whose check crashes is BAD with the crash as its issue: checked once (the same
// version never again in this run), moved to BAD once when BAD clips move, and the job
// goes on with the others.
TEST(WatchJob, AClipThatCrashesItsCheckIsBadOnceAndTheJobGoesOn)
{
    closeIdleWorkers(); // the next workers start with the fault rule
    ::setenv("TARVOQC_WORKER_FAULT", "segv:crash-me", 1); // NOLINT(concurrency-mt-unsafe)
    Watch w;
    const std::string bytes = readFile(test::testClip(kClean));
    const fs::path crashing = w.drop(bytes, "crash-me.mxf", w.src);
    w.start(3, false, false);
    w.pass();
    w.pass();
    EXPECT_EQ(w.job.status().checked, 1U) << "checked once, not pass after pass";
    EXPECT_TRUE(fs::exists(crashing));

    WatchJobSettings settings = w.job.settings();
    settings.moveGood = settings.moveBad = true;
    w.job.setSettings(settings);
    w.job.Start();
    w.drop(bytes, "fine.mxf", w.src);
    w.pass();
    w.pass();
    ::unsetenv("TARVOQC_WORKER_FAULT"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_TRUE(w.job.isRunning());
    expectClipAt(w, w.bad / "crash-me.mxf", test::testClip(kClean), "0/5 ERROR");
    expectClipAt(w, w.good / "fine.mxf", test::testClip(kClean), "5/5 OK");
    const std::string document = XmlNode().Load((w.bad / "crash-me.mxf.qcout").string())
                                     ? utf16leToUtf8(readFile(w.bad / "crash-me.mxf.qcout"))
                                     : "";
    EXPECT_NE(document.find("Check process crashed: signal 11 (SIGSEGV"), std::string::npos);
    const auto lines = w.logLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "QC 0/5 ERROR " + crashing.string()), 1);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("Moved "); }),
              2);
}

} // namespace
} // namespace tarvoqc
