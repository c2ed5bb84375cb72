#include <chrono>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/testsupport.h"
#include "tests/ui/resultdocument.h"

namespace fs = std::filesystem;
using namespace tarvoqc;

namespace {

using Clock = std::chrono::steady_clock;

// The window program as a process: offscreen, no display, its settings in a folder of the
// test's own.
test::ChildProcess windowProcess(const std::vector<std::string>& args, const fs::path& home,
                                 bool unsetPlatform)
{
    std::vector<std::string> argv = {"env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY"};
    if (unsetPlatform) {
        argv.insert(argv.end(), {"-u", "QT_QPA_PLATFORM"});
    } else {
        argv.push_back("QT_QPA_PLATFORM=offscreen");
    }
    argv.push_back("TARVOQC_HOME=" + home.string());
    argv.push_back(TARVOQC_WINDOW_EXE);
    argv.insert(argv.end(), args.begin(), args.end());
    return test::ChildProcess(argv);
}

std::string job(const std::vector<fs::path>& clips, bool hide = false)
{
    std::string text = hide ? "<Tarvo_QC Hide=\"1\">\n" : "<Tarvo_QC>\n";
    for (const fs::path& clip : clips) {
        text += "  <Clip File=\"" + clip.string() + "\"/>\n";
    }
    return text + "</Tarvo_QC>\n";
}

TEST(WindowProgram, CommandLinesAndTheirResultDocuments)
{
    test::TempDir dir;
    const fs::path home = dir / "home";
    const fs::path jobs = dir / "in folder";
    fs::create_directories(jobs);
    const fs::path ok = test::testClip("h264_aac.mp4");
    const fs::path truncated = test::testClip("truncated.mxf");
    const fs::path broken = test::testClip("text.mov");
    const std::string hashOk = test::sha256sumOf(ok);
    const std::string hashTruncated = test::sha256sumOf(truncated);
    ASSERT_FALSE(hashOk.empty());

    test::writeFile(jobs / "A.QCIN", job({ok, truncated, ok, broken}));
    test::writeFile(jobs / "second.qcin", job({truncated, ok}));
    test::writeFile(jobs / "empty.qcin", job({}));
    test::writeFile(jobs / "broken.qcin", "<Tarvo_QC><Clip File=\"" + ok.string() + "\"/>");
    test::writeFile(jobs / "hidden.qcin", job({ok}, true));
    test::writeFile(jobs / "hidden-empty.qcin", job({}, true));
    test::writeFile(jobs / "x.qcin.bak", job({ok}));
    test::writeFile(jobs / ".qci", job({ok}));

    const std::string clipLines = "Clip " + ok.string() + " " + hashOk + "\nQCheck 5/5 OK\n" +
                                  "Clip " + truncated.string() + " " + hashTruncated +
                                  "\nQCheck 3/5 Playable\n";
    const auto in = [&](const char* name) { return (jobs / name).string(); };
    const std::string all = clipLines + "Clip " + broken.string() + " -\nQCheck 0/5 ERROR\n";
    const std::string hidden = "Clip " + ok.string() + " " + hashOk + "\nQCheck 5/5 OK\n";
    // arguments, whether it ends by itself (else it waits to be closed and gets SIGTERM), the
    // document expected in the job folder (nullptr: none), what it holds, whether no
    // platform is named at all
    const std::tuple<std::vector<std::string>, bool, const char*, std::string, bool> rows[] = {
        {{}, false, nullptr, "", false},               // interactive, no document
        {{in("A.QCIN")}, true, "A.qcout", all, false}, // upper-case extension, path with spaces
        {{in("A.QCIN"), ok.string()}, true, nullptr, "", false}, // a job then a clip: none
        // two jobs: the second's document lists both
        {{in("A.QCIN"), in("second.qcin")}, true, "second.qcout", all, false},
        {{in("empty.qcin")}, false, "empty.qcout", "", false},      // stays open; closing writes it
        {{in("broken.qcin")}, false, "broken.qcout", "", false},    // does not parse: adds nothing
        {{in("x.qcin.bak"), in(".qci")}, true, nullptr, "", false}, // clips, not jobs
        // Qt's own options are clips too: Qt never sees them
        {{"-platform", "nosuchplatform", in("hidden.qcin")},
         true,
         "hidden.qcout",
         "Clip -platform -\nQCheck 0/5 ERROR\nClip nosuchplatform -\nQCheck 0/5 ERROR\n" + hidden,
         false},
        // Hide without a display; hidden and waiting, a close request still ends it
        {{in("hidden.qcin")}, true, "hidden.qcout", hidden, true},
        {{in("hidden-empty.qcin")}, false, "hidden-empty.qcout", "", true},
    };
    const auto documents = [&] {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(jobs)) {
            if (entry.path().extension() == ".qcout") {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    };
    for (const auto& [args, endsByItself, document, summary, unsetPlatform] : rows) {
        SCOPED_TRACE(testing::PrintToString(args));
        for (const std::string& name : documents()) {
            fs::remove(jobs / name);
        }
        test::ChildProcess process = windowProcess(args, home, unsetPlatform);
        if (endsByItself) {
            EXPECT_EQ(process.waitFor(std::chrono::seconds(60)), 0);
        } else {
            // Bounded: the window must still be there after a while, waiting for its user.
            EXPECT_FALSE(process.waitFor(std::chrono::milliseconds(1500)));
            process.signal(SIGTERM);
            EXPECT_EQ(process.waitFor(std::chrono::seconds(5)), 0);
        }
        if (document == nullptr) {
            EXPECT_TRUE(documents().empty());
            continue;
        }
        ASSERT_EQ(documents(), std::vector<std::string>{document});
        EXPECT_EQ(test::documentSummary(jobs / document), summary);
    }
}

TEST(WindowProgram, TerminationDuringALongRunWritesTheDocument)
{
    test::TempDir dir;
    const fs::path clip = test::testClip("long.ts");
    test::writeFile(dir / "long.qcin", job({clip}));
    // Clip tokens are listed however often they come: a run of many checks, then the job.
    std::vector<std::string> args(40, clip.string());
    args.push_back((dir / "long.qcin").string());
    test::ChildProcess process = windowProcess(args, dir / "home", false);
    EXPECT_FALSE(process.waitFor(std::chrono::milliseconds(700)));
    const auto asked = Clock::now();
    process.signal(SIGTERM);
    EXPECT_EQ(process.waitFor(std::chrono::seconds(10)), 0);
    EXPECT_LT(Clock::now() - asked, std::chrono::milliseconds(2500));
    // Every clip listed once (the job's is a duplicate); the interrupted ones without a
    // result.
    std::istringstream lines(test::documentSummary(dir / "long.qcout"));
    std::size_t clips = 0;
    std::size_t results = 0;
    for (std::string line; std::getline(lines, line);) {
        clips += line.rfind("Clip ", 0) == 0 ? 1 : 0;
        results += line.rfind("QCheck ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(clips, 40u);
    EXPECT_LT(results, 40u);
}

} // namespace
