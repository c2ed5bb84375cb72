#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

test::CommandResult check(std::vector<std::string> args)
{
    args.insert(args.begin(), TARVOQC_CHECK_EXE);
    return test::runCommand(args);
}

std::string clip(const char* name) { return (test::testMediaDir() / name).string(); }

std::vector<nlohmann::json> jsonLines(const std::string& out)
{
    std::vector<nlohmann::json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

TEST(CheckCli, ScoresIssuesAndExitStatus)
{
    struct Case
    {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> outHas;
    };
    const Case cases[] = {
        {{"--level", "1", clip("mpeg2_pcm.mxf")}, 0, {"5/5 OK", "mpeg2_pcm.mxf"}},
        {{"-l1", clip("nothere.mov")}, 1, {"0/5 ERROR", "File:[Critical] Couldn't get file attributes"}},
        {{"-l", "1", clip("text.mov")}, 1, {"0/5 ERROR", "File:[Critical] Couldn't open file"}},
        // pcm.wav scores 1 ("Couldn't estimate clip start timecode"): the threshold decides.
        {{"-l1", "-t1", clip("pcm.wav")}, 0, {"1/5 Very BAD"}},
        {{"-l1", "--threshold=2", clip("pcm.wav")}, 1, {"1/5 Very BAD"}},
        {{"-l1", "-t", "5", clip("mpeg2_pcm.mxf")}, 0, {"5/5 OK"}},
        {{"-l1", "-t0", clip("text.mov")}, 0, {"0/5 ERROR"}},
        {{"-l1", clip("mpeg2_pcm.mxf"), clip("text.mov")}, 1, {"5/5 OK", "0/5 ERROR", "2 clips checked"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args.back());
        const test::CommandResult r = check(c.args);
        EXPECT_EQ(r.status, c.status) << r.out << r.err;
        for (const std::string& text : c.outHas) {
            EXPECT_NE(r.out.find(text), std::string::npos) << text << " not in:\n" << r.out;
        }
    }
}

TEST(CheckCli, UsageErrorsExitWithTwoAndSayWhy)
{
    struct Case
    {
        std::vector<std::string> args;
        const char* errHas;
    };
    const Case cases[] = {
        {{}, "no clip"},
        {{"--level", "4", "x.mxf"}, "--level"},
        {{"-l", "abc", "x.mxf"}, "--level"},
        {{"--threshold", "-1", "x.mxf"}, "--threshold"},
        {{"--jobs", "x", "x.mxf"}, "--jobs"},
        {{"-t"}, "needs a value"},
        {{"--bogus", "x.mxf"}, "unknown option"},
        {{"--quiet=1", "x.mxf"}, "takes no value"},
        {{"-o", "", "x.mxf"}, "--output"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.errHas);
        const test::CommandResult r = check(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.errHas), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

TEST(CheckCli, VersionHelpAndQuiet)
{
    const test::CommandResult version = check({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_NE(version.out.find("tarvoqc-check"), std::string::npos);
    EXPECT_NE(version.out.find("1.0.0"), std::string::npos);

    const test::CommandResult help = check({"-h"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--threshold"), std::string::npos);

    const test::CommandResult quiet = check({"-q", "-l1", clip("text.mov"), clip("mpeg2_pcm.mxf")});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.out, "2 clips checked at level 1: 1 at or above \"3/5 Playable\", 1 below\n");

    // "--" ends the options: a clip whose name starts with "-" can still be checked.
    const test::CommandResult dashed = check({"-l1", "--", "-no-such-clip.mxf"});
    EXPECT_EQ(dashed.status, 1);
    EXPECT_NE(dashed.out.find("Couldn't get file attributes"), std::string::npos);
}

TEST(CheckCli, JsonLinesDescribeEachClip)
{
    const test::CommandResult r =
        check({"--json", "-l1", clip("mpeg2_pcm.mxf"), clip("nothere.mov"), clip("pcm.wav")});
    EXPECT_EQ(r.status, 1);
    const auto lines = jsonLines(r.out);
    ASSERT_EQ(lines.size(), 3U) << r.out;

    const nlohmann::json& mxf = lines[0];
    EXPECT_EQ(mxf["path"], clip("mpeg2_pcm.mxf"));
    EXPECT_EQ(mxf["score"], 5);
    EXPECT_EQ(mxf["result"], "5/5 OK");
    EXPECT_EQ(mxf["level"], 1);
    EXPECT_GT(mxf["size"].get<std::int64_t>(), 0);
    EXPECT_EQ(mxf["hash256"], ""); // no key at level 1
    EXPECT_TRUE(mxf["fkey"].is_null());
    EXPECT_DOUBLE_EQ(mxf["start"].get<double>(), 0.0);
    EXPECT_DOUBLE_EQ(mxf["duration"].get<double>(), 2.0);
    ASSERT_EQ(mxf["streams"].size(), 2U);
    EXPECT_EQ(mxf["streams"][0]["type"], "Video");
    EXPECT_EQ(mxf["streams"][0]["codec"], "mpeg2video");
    EXPECT_TRUE(mxf["streams"][0]["decodedStart"].is_null());
    EXPECT_TRUE(mxf["issues"].empty());

    const nlohmann::json& missing = lines[1];
    EXPECT_EQ(missing["score"], 0);
    ASSERT_EQ(missing["issues"].size(), 1U);
    EXPECT_EQ(missing["issues"][0]["category"], "File");
    EXPECT_EQ(missing["issues"][0]["severity"], "Critical");
    EXPECT_EQ(missing["issues"][0]["stream"], -1);
    EXPECT_EQ(missing["issues"][0]["kind"], "");
    EXPECT_EQ(missing["issues"][0]["text"], "Couldn't get file attributes");
    EXPECT_TRUE(missing["start"].is_null());

    const nlohmann::json& wav = lines[2];
    EXPECT_TRUE(wav["start"].is_null());
    ASSERT_EQ(wav["issues"].size(), 2U);
    // Worst first: the clip's Highest before the stream's High.
    EXPECT_EQ(wav["issues"][0]["severity"], "Highest");
    EXPECT_EQ(wav["issues"][1]["kind"], "Audio");
    EXPECT_EQ(wav["issues"][1]["stream"], 0);
    // The summary stays off standard output.
    EXPECT_NE(r.err.find("3 clips checked"), std::string::npos);
}

} // namespace
} // namespace tarvoqc
