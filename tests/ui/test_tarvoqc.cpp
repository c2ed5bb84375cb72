#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testsupport.h"
#include "tests/ui/resultdocument.h"

namespace fs = std::filesystem;
using namespace tarvoqc;

namespace {

using Clock = std::chrono::steady_clock;

// Where the window program shows its window: on Qt's offscreen platform, on no platform at
// all and no display (it then chooses offscreen itself), or on a display of its own.
enum class Screen { Offscreen, None, Display };

// The window program as a process, its settings in a folder of the test's own and its
// standard error in errors. display: the X display for Screen::Display.
test::ChildProcess windowProcess(const std::vector<std::string>& args, const fs::path& home,
                                 Screen screen, const fs::path& errors = "/dev/null",
                                 const std::string& display = {})
{
    std::vector<std::string> argv = {"sh",  "-c", "exec \"$@\" 2>\"$0\"", errors.string(),
                                     "env", "-u", "WAYLAND_DISPLAY"};
    if (screen == Screen::Display) {
        argv.insert(argv.end(), {"-u", "QT_QPA_PLATFORM", "DISPLAY=" + display});
    } else {
        argv.insert(argv.end(), {"-u", "DISPLAY"});
        argv.emplace_back(screen == Screen::None ? "-uQT_QPA_PLATFORM"
                                                 : "QT_QPA_PLATFORM=offscreen");
    }
    argv.emplace_back("TARVOQC_HOME=" + home.string());
    argv.emplace_back(TARVOQC_WINDOW_EXE);
    argv.insert(argv.end(), args.begin(), args.end());
    return test::ChildProcess(argv);
}

// An X server of the test's own (Xvfb), for a window that is really shown; its display name,
// or empty when Xvfb is not installed.
class VirtualDisplay
{
public:
    VirtualDisplay()
    {
        const std::string number = std::to_string(100 + ::getpid() % 500);
        std::string display(1, ':');
        display += number;
        const fs::path socket = "/tmp/.X11-unix/X" + number;
        m_server.emplace(std::vector<std::string>{"Xvfb", display, "-nolisten", "tcp"});
        for (int i = 0; i < 100 && !fs::exists(socket); ++i) {
            if (m_server->waitFor(std::chrono::milliseconds(50))) {
                return; // no Xvfb, or it could not start
            }
        }
        if (fs::exists(socket)) {
            m_name = display;
        }
    }
    const std::string& name() const { return m_name; }

private:
    std::optional<test::ChildProcess> m_server;
    std::string m_name;
};

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
    test::writeFile(jobs / "other.qcin", "<Other><Clip File=\"" + ok.string() + "\"/></Other>");
    test::writeFile(jobs / "hidden.qcin", job({ok}, true));
    test::writeFile(jobs / "qt.qcin", job({ok}, true));
    test::writeFile(jobs / "hidden-empty.qcin", job({}, true));
    test::writeFile(jobs / "own.qcin", job({ok, jobs / "own.qcout"}));
    test::writeFile(jobs / "notes.qcin", job({ok}));
    test::writeFile(jobs / "x.qcin.bak", job({ok}));
    test::writeFile(jobs / ".qci", job({ok}));

    const std::string clipLines = "Clip " + ok.string() + " " + hashOk + "\nQCheck 5/5 OK\n" +
                                  "Clip " + truncated.string() + " " + hashTruncated +
                                  "\nQCheck 3/5 Playable\n";
    const auto in = [&](const char* name) { return (jobs / name).string(); };
    const std::string all = clipLines + "Clip " + broken.string() + " -\nQCheck 0/5 ERROR\n";
    const std::string hidden = "Clip " + ok.string() + " " + hashOk + "\nQCheck 5/5 OK\n";
    // A document of an earlier run, or a user's file under a document's name: never replaced
    // by a run that cannot write its own.
    const auto keptBytes = [](const std::string& name) {
        return name == "notes.qcout"
                   ? std::string("my notes\n")
                   : "\xFF\xFE" +
                         test::utf16("<Tarvo_QC>\r\n  <Clip File=\"/earlier.mxf\"/>\r\n"
                                     "</Tarvo_QC>\r\n") +
                         std::string(2, '\0');
    };
    // Arguments, screen, whether it waits to be closed (and then gets SIGTERM), its exit
    // status, the document in the job folder afterwards ("" none; "=name": a file there before
    // that stays as it was) and a text of its standard error.
    constexpr Screen off = Screen::Offscreen, none = Screen::None, shown = Screen::Display;
    using Row = std::tuple<std::vector<std::string>, Screen, bool, int, std::string, std::string>;
    const Row rows[] = {
        {{}, off, true, 0, "", ""},                           // interactive: no document
        {{in("A.QCIN")}, off, false, 0, "A.qcout", ""},       // upper-case extension, spaces
        {{in("A.QCIN"), ok.string()}, off, false, 0, "", ""}, // a clip after the job: none
        {{in("A.QCIN"), in("second.qcin")}, off, false, 0, "second.qcout", ""}, // lists both
        {{in("x.qcin.bak"), in(".qci")}, off, false, 0, "", ""},                // clips, not jobs
        {{in("hidden.qcin")}, none, false, 0, "hidden.qcout", ""}, // Hide without a display
        // Qt's own options are clips too: Qt never sees them.
        {{"-platform", "nosuchplatform", in("qt.qcin")}, none, false, 0, "qt.qcout", ""},
        // Nothing to check in a window nobody can close: it says so and ends.
        {{in("empty.qcin")}, off, false, 2, "=empty.qcout", "no clips to check"},
        {{in("hidden-empty.qcin")}, none, false, 2, "=hidden-empty.qcout", "no clips to check"},
        // A job that cannot be read is named and never replaces its earlier document.
        {{in("broken.qcin")}, off, false, 2, "=broken.qcout", "'" + in("broken.qcin") + "' could"},
        {{in("other.qcin")}, off, false, 2, "=other.qcout", "has no \"Tarvo_QC\" root element"},
        {{ok.string(), in("broken.qcin")}, off, false, 2, "=broken.qcout", "could not be read"},
        // Refused before anything is checked, as tarvoqc-check refuses.
        {{in("own.qcin")}, off, false, 2, "=own.qcout", "it is one of the clips to check"},
        {{in("notes.qcin")}, off, false, 2, "=notes.qcout", "it exists and is not a result"},
        // A shown window keeps waiting for its user; closing writes the (empty) document, but
        // never that of a job that could not be read.
        {{in("empty.qcin")}, shown, true, 0, "empty.qcout", ""},
        {{in("broken.qcin")}, shown, true, 2, "=broken.qcout", "could not be read"},
    };
    const std::map<std::string, std::string> summaries = {
        {"A.qcout", all},
        {"second.qcout", all},
        {"hidden.qcout", hidden},
        {"qt.qcout",
         "Clip -platform -\nQCheck 0/5 ERROR\nClip nosuchplatform -\nQCheck 0/5 ERROR\n" + hidden},
        {"empty.qcout", ""}};
    const auto documents = [&] {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(jobs)) {
            if (entry.path().extension() == ".qcout") {
                names.push_back(entry.path().filename().string());
            }
        }
        return names;
    };
    VirtualDisplay display;
    for (const auto& [args, screen, waits, status, document, says] : rows) {
        SCOPED_TRACE(testing::PrintToString(args));
        if (screen == shown && display.name().empty()) {
            std::cout << "[ SKIPPED  ] a shown window: Xvfb is not installed\n";
            continue;
        }
        for (const std::string& name : documents()) {
            fs::remove(jobs / name);
        }
        const bool kept = document.starts_with("=");
        const std::string name = kept ? document.substr(1) : document;
        if (kept) {
            test::writeFile(jobs / name, keptBytes(name));
        }
        test::ChildProcess process =
            windowProcess(args, home, screen, dir / "errors", display.name());
        if (waits) {
            // Bounded: the window must still be there after a while, waiting for its user.
            EXPECT_FALSE(process.waitFor(std::chrono::milliseconds(1500)));
            process.signal(SIGTERM);
            EXPECT_EQ(process.waitFor(std::chrono::seconds(5)), status);
        } else {
            EXPECT_EQ(process.waitFor(std::chrono::seconds(60)), status);
        }
        EXPECT_NE(test::readFile(dir / "errors").find(says), std::string::npos)
            << test::readFile(dir / "errors");
        EXPECT_EQ(documents(), name.empty() ? std::vector<std::string>{} : std::vector{name});
        if (kept) {
            EXPECT_EQ(test::readFile(jobs / name), keptBytes(name));
        } else if (!name.empty()) {
            EXPECT_EQ(test::documentSummary(jobs / name), summaries.at(name));
        }
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
    test::ChildProcess process = windowProcess(args, dir / "home", Screen::Offscreen);
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
