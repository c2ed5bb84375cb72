// The command-line programs as Unix tools: checked writes, lists of clips, a stop by a
// signal and a progress line that fits the terminal.

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/testsupport.h"

#include <nlohmann/json.hpp>

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;

std::string clip(const char* name)
{
    return test::testClip(name).string();
}

// Runs a shell script with the programs as $CHECK and $REPORT.
test::CommandResult shell(const std::string& script, const std::vector<std::string>& env = {})
{
    std::vector<std::string> all = {std::string("CHECK=") + TARVOQC_CHECK_EXE,
                                    std::string("REPORT=") + TARVOQC_REPORT_EXE};
    all.insert(all.end(), env.begin(), env.end());
    return test::runCommand({"sh", "-c", script}, all);
}

std::vector<std::string> jsonPaths(const std::string& out)
{
    std::vector<std::string> paths;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        paths.push_back(nlohmann::json::parse(line)["path"]);
    }
    return paths;
}

// A full disk under standard output must never end as a pass: every writer of both
// programs checks its writes and the final flush and close.
TEST(UnixTool, AFullStandardOutputIsAnErrorForEveryWriter)
{
    const test::TempDir dir;
    const std::string run = (dir / "run.jsonl").string();
    test::writeFile(run,
                    test::runCommand({TARVOQC_CHECK_EXE, "--json", "-l1", clip("pcm.wav")}).out);
    const std::string wav = clip("pcm.wav");
    const std::string writers[] = {
        "$CHECK -l1 '" + wav + "'",        // result lines and the summary
        "$CHECK --json -l1 '" + wav + "'", // JSON lines
        "$CHECK -q -l1 '" + wav + "'",     // the summary alone
        "$CHECK --help",                   // the usage text
        "$REPORT --csv - '" + run + "'",   // the CSV file
        "$REPORT --html - '" + run + "'",  // the HTML page
        "$REPORT '" + run + "'",           // the summary
        "$REPORT --version",               // the version
    };
    for (const std::string& writer : writers) {
        SCOPED_TRACE(writer);
        const test::CommandResult r = shell(writer + " > /dev/full");
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_NE(r.err.find("cannot write standard output: No space left on device"),
                  std::string::npos)
            << r.err;
    }
}

// Names with line feeds, tabs, blanks and leading dashes pass whole through the
// NUL-separated list, from a file or from standard input; the line form takes one path a
// line and skips empty lines.
TEST(UnixTool, FilesFromTakesOddNames)
{
    const test::TempDir dir;
    const std::string names[] = {"new\nline.mxf", "tab\there.mxf",   " blank.mxf",
                                 "-dash.mxf",     "back\\slash.mxf", "caf\xC3\xA9.mxf"};
    std::string nulList;
    std::set<std::string> expected;
    for (const std::string& name : names) {
        const std::string path = (dir / name).string();
        fs::copy_file(test::testClip("mpeg2_pcm.mxf"), path);
        nulList += path + '\0';
        expected.insert(path);
    }
    test::writeFile(dir / "clips.lst0", nulList);
    const std::string plain = clip("mpeg2_pcm.mxf") + "\n\n" + clip("text.mov") + "\n";
    test::writeFile(dir / "clips.txt", plain);
    const std::string d = dir.path().string();

    using Row = std::tuple<const char*, std::string, std::set<std::string>>;
    const Row rows[] = {
        {"NUL list file", "$CHECK --json -l1 -0 --files-from '" + d + "/clips.lst0'", expected},
        {"find -print0 on standard input",
         "find '" + d + "' -name '*.mxf' -print0 | $CHECK --json -l1 --null --files-from -",
         expected},
        {"line list and an operand",
         "$CHECK --json -l1 --files-from='" + d + "/clips.txt' '" + clip("pcm.wav") + "'",
         {clip("mpeg2_pcm.mxf"), clip("text.mov"), clip("pcm.wav")}},
    };
    for (const auto& [name, script, paths] : rows) {
        SCOPED_TRACE(name);
        const test::CommandResult r = shell(script);
        EXPECT_NE(r.status, 2) << r.err;
        const std::vector<std::string> got = jsonPaths(r.out);
        EXPECT_EQ(got.size(), paths.size()) << r.out;
        EXPECT_EQ(std::set<std::string>(got.begin(), got.end()), paths);
    }

    // A list that cannot be read ends the run before anything is checked; "-" on its own is
    // no clip.
    const std::pair<std::string, const char*> refused[] = {
        {"$CHECK --files-from '" + d + "/none.txt'", "cannot read the list of clips"},
        {"$CHECK --files-from '" + d + "'", "cannot read the list of clips"},
        {"$CHECK -", "'-' is no clip"}};
    for (const auto& [script, message] : refused) {
        SCOPED_TRACE(script);
        const test::CommandResult r = shell(script);
        EXPECT_EQ(r.status, 2);
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    }
}

// Ctrl-C in the middle of a run over two folders: the clip being checked (one that would
// hang for ever) is stopped, the finished ones are printed with the summary, the result
// document lists every clip with results for the finished ones only, and the status is 2.
TEST(UnixTool, AStopSignalEndsAFolderRunCleanly)
{
    const test::TempDir dir;
    // A folder's clips come in the order the folder lists them: the clip that hangs sits
    // between the folders, so the first folder is done before it.
    for (const char* name : {"a/1.mxf", "a/2.mxf", "3-hang.mxf", "b/4.mxf", "b/5.mxf"}) {
        fs::create_directories((dir / name).parent_path());
        fs::copy_file(test::testClip("mpeg2_pcm.mxf"), dir / name);
    }
    const std::string inputs = " '" + (dir / "a").string() + "' '" + (dir / "3-hang.mxf").string() +
                               "' '" + (dir / "b").string() + "'";
    const std::string document = (dir / "run.qcout").string();
    const std::string run = ": > \"$OUT\"; $CHECK -l1 --hang-timeout 0 -o '" + document + "'" +
                            inputs +
                            " > \"$OUT\" & pid=$!\n"
                            "i=0; while [ \"$(grep -c '^5/5 OK' \"$OUT\")\" -lt 2 ] && "
                            "[ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n"
                            "sleep 0.3; kill -$SIGNAL $pid; wait $pid; status=$?; cat \"$OUT\"; "
                            "exit $status";
    for (const char* signal : {"INT", "TERM"}) {
        SCOPED_TRACE(signal);
        fs::remove(document);
        const test::CommandResult r =
            shell(run, {"TARVOQC_WORKER_FAULT=hang:3-hang", "OUT=" + (dir / "out").string(),
                        std::string("SIGNAL=") + signal});
        EXPECT_EQ(r.status, 2) << r.out << r.err;
        EXPECT_NE(r.out.find("2 clips checked at level 1: 2 at or above"), std::string::npos)
            << r.out;
        EXPECT_NE(r.err.find(std::string("stopped by SIG") + signal + ": 3 of 5 clips not checked"),
                  std::string::npos)
            << r.err;
        const std::string xml = test::asciiOfUtf16(test::readFile(document));
        std::size_t clips = 0;
        std::size_t checks = 0;
        for (std::size_t at = 0; (at = xml.find("<Clip ", at)) != std::string::npos; ++at) {
            ++clips;
        }
        for (std::size_t at = 0; (at = xml.find("<QCheck", at)) != std::string::npos; ++at) {
            ++checks;
        }
        EXPECT_EQ(clips, 5U) << xml;
        EXPECT_EQ(checks, 2U) << xml;
    }
}

// The progress line on a terminal of 80 columns (its window size) or of $COLUMNS (a
// terminal that tells none) never reaches the last column, so it never wraps, whatever the
// length of the clip's name.
TEST(UnixTool, ProgressLineFitsTheTerminal)
{
    const test::TempDir dir;
    const std::string path = (dir / (std::string(120, 'n') + ".mxf")).string();
    fs::copy_file(test::testClip("mpeg2_pcm.mxf"), path);
    const std::pair<std::string, std::size_t> terminals[] = {
        {"stty cols 80 rows 24; ", 80}, {"stty cols 0 rows 0; COLUMNS=50 ", 50}};
    const std::string run =
        std::string("'") + TARVOQC_CHECK_EXE + "' -l2 '" + path + "' '" + path + "'";
    for (const auto& [setup, columns] : terminals) {
        SCOPED_TRACE(columns);
        std::string command = setup;
        command += run;
        const test::CommandResult r = test::runCommand({"script", "-qec", command, "/dev/null"});
        EXPECT_EQ(r.status, 0) << r.err;
        ASSERT_NE(r.out.find("nnn..."), std::string::npos) << r.out; // the bar was drawn
        std::size_t longest = 0;
        std::size_t start = 0;
        while (start <= r.out.size()) {
            std::size_t end = r.out.find_first_of("\r\n", start);
            if (end == std::string::npos) {
                end = r.out.size();
            }
            const std::string segment = r.out.substr(start, end - start);
            if (segment.find("nnn...") != std::string::npos) {
                longest = std::max(longest, segment.size());
            }
            start = end + 1;
        }
        EXPECT_GT(longest, columns / 2);
        EXPECT_LT(longest, columns) << r.out;
    }
}

} // namespace
} // namespace tarvoqc
