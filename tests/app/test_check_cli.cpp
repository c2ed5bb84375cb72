#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "results/checkdefaults.h"
#include "tests/support/testsupport.h"

#include <nlohmann/json.hpp>

namespace tarvoqc {
namespace {

using namespace nlohmann::literals;

namespace fs = std::filesystem;

test::CommandResult check(std::vector<std::string> args)
{
    args.insert(args.begin(), TARVOQC_CHECK_EXE);
    return test::runCommand(args);
}

std::string clip(const char* name)
{
    return (test::testMediaDir() / name).string();
}

std::vector<nlohmann::json> jsonLines(const std::string& out)
{
    std::vector<nlohmann::json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

// Each field named in fields has that value in object.
void expectFields(const nlohmann::json& object, const nlohmann::json& fields)
{
    for (const auto& [key, value] : fields.items()) {
        EXPECT_EQ(object[key], value) << key;
    }
}

TEST(CheckCli, ScoresIssuesAndExitStatus)
{
    const std::string mxf = clip("mpeg2_pcm.mxf"), text = clip("text.mov"), wav = clip("pcm.wav");
    const std::tuple<std::vector<std::string>, int, std::vector<std::string>> cases[] = {
        {{"--level", "1", mxf}, 0, {"5/5 OK", "mpeg2_pcm.mxf"}},
        // Level 4: loudness limits given on the command line are a rule that grades the
        // clip; without them its loudness is only told.
        {{"-l4", "--loudness-target", "-8", "--true-peak-limit=-10", clip("l4_loud.mov")},
         0,
         {"3/5 Playable", "[Low] Stream 0 (Audio) True peak -5.0 dBTP over the limit of -10.0"}},
        {{"-l4", clip("l4_loud.mov")}, 0, {"4/5 Good", "[Warning] Stream 0 (Audio) Loudness -8.0"}},
        // pcm.wav scores 1 ("Couldn't estimate clip start timecode"): the threshold decides.
        {{"-l1", "-t1", wav}, 0, {"1/5 Very BAD"}},
        {{"-l1", "--threshold=2", wav}, 1, {"1/5 Very BAD"}},
        {{"--version"}, 0, {"tarvoqc-check", "1.0.0"}},
        {{"-h"}, 0, {"--threshold"}},
        // "--" ends the options: a clip whose name starts with "-" can still be checked.
        {{"-l1", "--", "-no-such-clip.mxf"}, 1, {"Couldn't get file attributes"}},
    };
    for (const auto& [args, status, outHas] : cases) {
        SCOPED_TRACE(args.back());
        const test::CommandResult r = check(args);
        EXPECT_EQ(r.status, status) << r.out << r.err;
        for (const std::string& text : outHas) {
            EXPECT_NE(r.out.find(text), std::string::npos) << text << " not in:\n" << r.out;
        }
    }
    // Short options combine as usual: "-qj2" is "-q -j2", and only the summary is written.
    const test::CommandResult quiet = check({"-qj2", "-l1", text, mxf});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.out, "2 clips checked at level 1: 1 at or above \"3/5 Playable\", 1 below\n");
}

// A clip whose check crashes, aborts, runs out of memory or hangs, among five good ones:
// the run goes on, every clip gets its line, the summary and the result document are
// written, and the exit status says a clip is below the threshold.
TEST(CheckCli, AClipThatBreaksItsCheckCostsThatClipOnly)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const bool memoryLimited = false;
#else
    const bool memoryLimited = true;
#endif
    const test::TempDir dir;
    const std::pair<const char*, const char*> faults[] = {
        {"segv", "Check process crashed: signal 11 (SIGSEGV"},
        {"abort", "Check process crashed: signal 6 (SIGABRT"},
        {"memory", "Check process ran out of memory (limit 256 MiB)"},
        {"hang", "Check process hung: no activity for 1 s"}};
    for (const auto& [fault, issue] : faults) {
        SCOPED_TRACE(fault);
        if (std::string_view(fault) == "memory" && !memoryLimited) {
            continue; // sanitizer builds run workers without a memory limit
        }
        const fs::path folder = dir / fault;
        fs::create_directories(folder);
        for (const char* name : {"1.mp4", "2.mp4", "3-break-me.mp4", "4.mp4", "5.mp4", "6.mp4"}) {
            fs::copy_file(clip("h264_aac.mp4"), folder / name);
        }
        const std::string document = (folder / "run.qcout").string();
        const test::CommandResult r = test::runCommand(
            {TARVOQC_CHECK_EXE, "--hang-timeout", std::string_view(fault) == "hang" ? "1" : "30",
             "--max-memory", "256", "-o", document, "-j2", folder.string()},
            {std::string("TARVOQC_WORKER_FAULT=") + fault + ":break-me"});
        EXPECT_EQ(r.status, 1) << r.out << r.err;
        EXPECT_NE(r.out.find("0/5 ERROR    " + (folder / "3-break-me.mp4").string() +
                             "\n    File:[Critical] " + issue),
                  std::string::npos)
            << r.out;
        std::size_t fine = 0;
        for (std::size_t at = 0; (at = r.out.find("5/5 OK ", at)) != std::string::npos; ++at) {
            ++fine;
        }
        EXPECT_EQ(fine, 5U) << r.out;
        EXPECT_NE(r.out.find("6 clips checked at level 3: 5 at or above"), std::string::npos);
        const std::string xml = test::asciiOfUtf16(test::readFile(document));
        std::size_t clips = 0;
        for (std::size_t at = 0; (at = xml.find("<Clip ", at)) != std::string::npos; ++at) {
            ++clips;
        }
        EXPECT_EQ(clips, 6U) << xml;
    }
}

TEST(CheckCli, UsageErrorsExitWithTwoAndSayWhy)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "no clip"},
        {{"--level", "5", "x.mxf"}, "--level"},
        {{"--loudness-target", "-23x", "x.mxf"}, "--loudness-target"},
        {{"--true-peak-limit", "nan", "x.mxf"}, "--true-peak-limit"},
        {{"-l", "abc", "x.mxf"}, "--level"},
        {{"--threshold", "-1", "x.mxf"}, "--threshold"},
        {{"--jobs", "x", "x.mxf"}, "--jobs"},
        {{"--max-memory", "-1", "x.mxf"}, "--max-memory"},
        {{"--hang-timeout", "1.5", "x.mxf"}, "--hang-timeout"},
        {{"-t"}, "needs a value"},
        {{"--bogus", "x.mxf"}, "unknown option"},
        {{"--quiet=1", "x.mxf"}, "takes no value"},
        {{"-o", "", "x.mxf"}, "--output"}};
    for (const auto& [args, errHas] : cases) {
        SCOPED_TRACE(errHas);
        const test::CommandResult r = check(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(errHas), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

// The help of both programs states the defaults they really use, so that a change of the
// defaults table cannot leave a help text behind.
TEST(CheckCli, HelpStatesTheDefaultsInForce)
{
    const auto number = [](double value) {
        std::ostringstream text;
        text << value;
        return text.str();
    };
    const std::pair<const char*, std::string> checkRows[] = {
        {"--level N", number(kDefaultCheckLevel)},
        {"--loudness-target LUFS", number(kDefaultLoudnessTarget)},
        {"--loudness-tolerance LU", number(kDefaultLoudnessTolerance)},
        {"--true-peak-limit DBTP", number(kDefaultTruePeakLimit)},
        {"--threshold N", number(kDefaultGoodThreshold)},
        {"--max-memory MIB", number(kDefaultWorkerMemoryMiB)},
        {"--hang-timeout S", number(kDefaultHangTimeoutSeconds)}};
    const std::string checkHelp = check({"--help"}).out;
    const std::string reportHelp = test::runCommand({TARVOQC_REPORT_EXE, "--help"}).out;
    const auto defaultAfter = [](const std::string& help, const char* option) {
        const std::size_t at = help.find(option);
        const std::size_t open = help.find("(default ", at);
        if (at == std::string::npos || open == std::string::npos) {
            return std::string("(no default after ") + option + ")";
        }
        const std::size_t begin = open + 9;
        return help.substr(begin, help.find_first_of(";):", begin) - begin);
    };
    for (const auto& [option, expected] : checkRows) {
        EXPECT_EQ(defaultAfter(checkHelp, option), expected) << option;
    }
    EXPECT_EQ(defaultAfter(reportHelp, "--threshold N"), number(kDefaultGoodThreshold));
}

// --profile grades every clip by a delivery profile and says so; a profile that does not
// load stops the run before any clip is checked, naming its file and line.
TEST(CheckCli, DeliveryProfiles)
{
    test::TempDir dir;
    const std::string broken = (dir / "broken.ini").string();
    test::writeFile(broken, "[Profile]\nName = broken\n[Format]\nVideo.FrameRate = fast\n");
    const std::string mp4 = clip("h264_aac.mp4");
    const struct
    {
        std::vector<std::string> args;
        int status;
        const char* outHas; // on standard output, or on standard error for status 2
    } cases[] = {
        {{"--profile", "streaming", mp4}, 0, "checked at level 3 by profile Streaming delivery"},
        {{"-p", "ebu-r128-hd", mp4},
         1,
         "Codec:[High] Stream 0 (Video) Picture size 320x240, profile wants 1920x1080"},
        {{"--profile", "technical", mp4}, 0, "5/5 OK       "},
        {{"--profile", broken, mp4}, 2, "broken.ini:4: 'fast' is no value of Video.FrameRate"},
        {{"--profile", "no-such-profile", mp4}, 2, "no profile named 'no-such-profile'"},
        {{"--list-profiles"}, 0, "ebu-r128-hd"},
    };
    for (const auto& [args, status, outHas] : cases) {
        SCOPED_TRACE(outHas);
        const test::CommandResult r = check(args);
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_NE((status == 2 ? r.err : r.out).find(outHas), std::string::npos) << r.out << r.err;
        if (status == 2) {
            EXPECT_TRUE(r.out.empty()) << r.out;
        }
    }
    const test::CommandResult listed = check({"--list-profiles"});
    for (const char* name : {"technical", "atsc-a85", "streaming", "archive-master"}) {
        EXPECT_NE(listed.out.find(name), std::string::npos) << name;
    }
    const auto lines = jsonLines(check({"--json", "--profile", "streaming", mp4}).out);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["profile"], "Streaming delivery");
    // Without a profile the line is as it always was.
    EXPECT_FALSE(jsonLines(check({"--json", mp4}).out)[0].contains("profile"));
}

TEST(CheckCli, JsonLinesDescribeEachClip)
{
    const test::CommandResult r =
        check({"--json", "-l1", clip("mpeg2_pcm.mxf"), clip("nothere.mov"), clip("pcm.wav")});
    EXPECT_EQ(r.status, 1);
    const auto lines = jsonLines(r.out);
    ASSERT_EQ(lines.size(), 3U) << r.out;

    // No keys at level 1. Path, score, result, size, keys and the issues' fields are what the
    // report tests read back from these lines.
    expectFields(lines[0], R"({"level": 1, "hash256": "", "fkey": null, "start": 0.0,
        "duration": 2.0})"_json);
    ASSERT_EQ(lines[0]["streams"].size(), 2U);
    expectFields(lines[0]["streams"][0],
                 R"({"type": "Video", "codec": "mpeg2video", "decodedStart": null})"_json);
    EXPECT_TRUE(lines[1]["start"].is_null());
    EXPECT_EQ(lines[1]["issues"][0]["stream"], -1);
    // Worst first: the clip's Highest before the stream's High.
    ASSERT_EQ(lines[2]["issues"].size(), 2U);
    EXPECT_EQ(lines[2]["issues"][0]["severity"], "Highest");
    EXPECT_EQ(lines[2]["issues"][1]["stream"], 0);
    // The summary stays off standard output.
    EXPECT_NE(r.err.find("3 clips checked"), std::string::npos);
}

// Reads a result document with Python's XML parser (after taking off the terminating zero
// character).
constexpr const char* kPythonReader = R"PY(
import json, sys
import xml.etree.ElementTree as ET
data = open(sys.argv[1], 'rb').read()
assert data[:2] == b'\xff\xfe', 'byte-order mark'
assert data[-2:] == b'\x00\x00', 'terminating zero'
root = ET.fromstring(data[2:-2].decode('utf-16-le'))
out = {'root': root.tag, 'children': [c.tag for c in root]}
out['clips'] = [clip.get('File') for clip in root.findall('Clip')]
out['streams'] = [{e.tag: e.attrib for e in c.iter() if e.tag in ('Video', 'Audio')} for c in root.findall('Clip')]
out['qchecks'] = [dict(q.attrib, issues=[dict(i.attrib, text=i.text) for i in q]) for q in root.findall('QCheck')]
print(json.dumps(out))
)PY";

nlohmann::json readResultDocument(const std::filesystem::path& document)
{
    const test::CommandResult r =
        test::runCommand({"python3", "-c", kPythonReader, document.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    return r.status == 0 ? nlohmann::json::parse(r.out) : nlohmann::json{};
}

TEST(CheckCliDocument, ResultDocumentIsWellFormedAndMatchesTheClips)
{
    const test::TempDir dir;
    const auto document = dir / "report.qcout";
    // A name with every character the document escapes, and some that are not ASCII: the
    // reader finds the clip by the name it reads back.
    const std::string mxfCopy =
        (dir / "a&b <c> \"d\" 'e' \xC3\xA9\xE2\x82\xAC\xF0\x9F\x8E\xAC.mxf").string();
    fs::copy_file(test::testClip("mpeg2_pcm.mxf"), mxfCopy);
    const test::CommandResult r =
        check({"-o", document.string(), mxfCopy, clip("jump_video_high.ts"), clip("text.mov")});
    ASSERT_EQ(r.status, 1) << r.err;
    const nlohmann::json doc = readResultDocument(document);
    ASSERT_FALSE(doc.empty());
    EXPECT_EQ(doc["root"], "Tarvo_QC");
    EXPECT_EQ(doc["children"], R"(["Clip", "QCheck", "Clip", "QCheck", "Clip", "QCheck"])"_json);
    EXPECT_EQ(doc["clips"][0], mxfCopy);
    // Each clip's facts and result are what the report reads back from a document like this;
    // two facts only decoding can give: 48000 16-bit samples a second, and the joined TS's
    // decoded start.
    EXPECT_EQ(doc["streams"][0]["Audio"]["KbRate"], "768.0000");
    EXPECT_EQ(doc["streams"][1]["Video"]["Stt"], "10.0000000");
    const nlohmann::json& tsCheck = doc["qchecks"][1];
    ASSERT_EQ(tsCheck["issues"].size(), 1U);
    EXPECT_EQ(tsCheck["issues"][0], R"({"Cat": "Frames", "Sev": "High", "Strm": "0",
        "Kind": "Video", "At": "4.0000000", "text": "Gap in TC of 2.00 at 4.00"})"_json);
}

// Which elements of a job count, and how often, is the job reader's (its own tests).
TEST(CheckCliDocument, JobFilesWriteTheirResultBesideThem)
{
    const test::TempDir dir;
    const auto job = dir / "night run.QCIN";
    test::writeFile(job, "<Tarvo_QC Hide=\"1\"><Clip File=\"" + clip("mpeg2_pcm.mxf") +
                             "\"/><Clip File=\"" + clip("text.mov") + "\"/></Tarvo_QC>");
    const test::CommandResult r = check({"-l1", job.string()});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("2 clips checked"), std::string::npos) << r.out;
    const nlohmann::json doc = readResultDocument(dir / "night run.qcout");
    ASSERT_EQ(doc["clips"].size(), 2U);
    EXPECT_EQ(doc["clips"][0], clip("mpeg2_pcm.mxf"));
    EXPECT_EQ(doc["clips"][1], clip("text.mov"));

    // A clip after the job file: checked too, but the job's result is not written.
    std::filesystem::remove(dir / "night run.qcout");
    EXPECT_EQ(check({"-l1", job.string(), clip("h264_aac.mp4")}).status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir / "night run.qcout"));
    // Two job files: only the second's document is written, and it lists the clips of both.
    test::writeFile(dir / "second.qcin",
                    "<Tarvo_QC><Clip File=\"" + clip("pcm.wav") + "\"/></Tarvo_QC>");
    EXPECT_EQ(check({"-l1", job.string(), (dir / "second.qcin").string()}).status, 1);
    EXPECT_FALSE(std::filesystem::exists(dir / "night run.qcout"));
    EXPECT_EQ(readResultDocument(dir / "second.qcout")["clips"].size(), 3U);

    // A job without clips still writes its (empty) result document.
    const auto empty = dir / "empty.qcin";
    test::writeFile(empty, "<Tarvo_QC Hide=\"1\"/>");
    EXPECT_EQ(check({empty.string()}).status, 0);
    const nlohmann::json none = readResultDocument(dir / "empty.qcout");
    EXPECT_TRUE(none["clips"].empty());
}

// What an attacker or a careless user may hand the checker. Each row ends with its exit
// status and says why; none may hang, crash or change a file that was there before.
TEST(CheckCliHostile, NoCrashNoHangNoLostFile)
{
    const test::TempDir dir;
    const auto at = [&](const std::string& name) { return (dir / name).string(); };
    const std::string clean = test::readFile(test::testClip("mpeg2_pcm.mxf"));
    const std::string badName = "bad\xff\xfename.mxf";
    fs::create_directory(at("folder.mxf"));
    ASSERT_EQ(::mkfifo(at("fifo.ts").c_str(), 0600), 0);
    fs::create_symlink(at("victim.mxf"), at("link.mxf"));
    const std::string job = "<Tarvo_QC><Clip File=\"" + at("victim.mxf") + "\"/></Tarvo_QC>";
    const std::map<std::string, std::string> kept = {
        {"victim.mxf", clean},
        {"new\nline.mxf", clean},
        {badName, clean},
        {"job.qcin", job},
        {"odd.qcin", "<Tarvo_QC><Clip File=\"" + at("folder.mxf") + "\"/><Clip File=\"" +
                         at("fifo.ts") + "\"/></Tarvo_QC>"},
        {"notes.txt", "my notes\n"},
        {"broken.qcin", "<Tarvo_QC><Clip File=\"x.mxf\">"},
        {"broken.qcout", "earlier document"},
        {"other.qcin", "<Other><Clip File=\"" + at("victim.mxf") + "\"/></Other>"},
        {"other.qcout", "earlier document"},
    };
    for (const auto& [name, bytes] : kept) {
        test::writeFile(at(name), bytes);
    }

    // Name, arguments, exit status, a text of the output (of standard error for status 2).
    const std::string v = at("victim.mxf"), jq = at("job.qcin"), fifo = at("fifo.ts");
    const std::string bad = at(badName);
    using Row = std::tuple<const char*, std::vector<std::string>, int, std::string>;
    const Row cases[] = {
        {"non-UTF-8 name", {"--json", "-l1", bad}, 0, "bad\xEF\xBF\xBD\xEF\xBF\xBDname.mxf\""},
        {"non-UTF-8 in a scan", {"--json", "-l1", dir.path().string()}, 1, "bad\xEF\xBF\xBD"},
        {"FIFO", {"-l3", fifo}, 1, "Couldn't open file"},
        {"device", {"-l2", "/dev/zero"}, 1, "Couldn't open file"},
        {"folder and FIFO in a job", {"-l3", at("odd.qcin")}, 1, "Couldn't open file"},
        {"newline in a name", {"-l1", at("new\nline.mxf")}, 0, "new\\nline.mxf\n"},
        {"-o onto its input", {"-l1", "-o", v, v}, 2, "one of the inputs"},
        {"-o onto a link to an input", {"-l1", "-o", at("link.mxf"), v}, 2, "one of the inputs"},
        {"-o onto the job", {"-o", jq, jq}, 2, "one of the inputs"},
        {"-o onto a clip of the job", {"-o", v, jq}, 2, "one of the clips"},
        {"-o onto another file", {"-l1", "-o", at("notes.txt"), v}, 2, "not a result document"},
        {"-o onto a FIFO", {"-l1", "-o", fifo, v}, 2, "not a regular file"},
        {"-o into no folder", {"-l1", "-o", "/no/such/x.qcout", v}, 2, "cannot write the result"},
        {"broken job, earlier document", {"-l1", at("broken.qcin")}, 2, "broken.qcin' could not"},
        {"job with another root", {"-l1", at("other.qcin")}, 2, "no \"Tarvo_QC\" root"},
    };
    for (const auto& [name, args, status, has] : cases) {
        SCOPED_TRACE(name);
        const test::CommandResult r = check(args);
        EXPECT_EQ(r.status, status) << r.out << r.err;
        EXPECT_NE((status == 2 ? r.err : r.out).find(has), std::string::npos) << r.out << r.err;
        if (args.front() == "--json") {
            for (const nlohmann::json& line : jsonLines(r.out)) {
                EXPECT_TRUE(line.contains("score"));
            }
        }
    }
    for (const auto& [name, bytes] : kept) {
        EXPECT_EQ(test::readFile(at(name)), bytes) << name;
    }
    EXPECT_TRUE(fs::is_fifo(at("fifo.ts")));
    EXPECT_TRUE(fs::is_symlink(at("link.mxf")));
}

// On a terminal the progress bar shows the clip's name, cut to 40 characters: never
// inside one.
TEST(CheckCliHostile, ProgressBarCutsLongNamesBetweenCharacters)
{
    const test::TempDir dir;
    std::string name(36, 'a');
    for (int i = 0; i < 10; ++i) {
        name += "\xC3\xA9"; // e acute
    }
    const std::string path = (dir / (name + ".mxf")).string();
    test::writeFile(path, test::readFile(test::testClip("mpeg2_pcm.mxf")));
    const test::CommandResult r = test::runCommand(
        {"script", "-qec",
         "stty cols 120; '" + std::string(TARVOQC_CHECK_EXE) + "' -l2 '" + path + "'",
         "/dev/null"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find(std::string(36, 'a') + "\xC3\xA9..."), std::string::npos) << r.out;
}

} // namespace
} // namespace tarvoqc
