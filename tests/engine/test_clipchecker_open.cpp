#include <atomic>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;
using test::ExpectedIssue;

QcResult openOnly(const std::string& path, CheckLevel level, bool* opened = nullptr)
{
    ClipChecker checker;
    const bool ok = checker.Open(path, level, -1);
    if (opened != nullptr) {
        *opened = ok;
    }
    checker.Close();
    return checker.result();
}

TEST(ClipCheckerOpen, IssuesOfOpenAndProbeOnRealClips)
{
    using enum QcSeverity;
    using enum QcIssueCategory;
    const auto media = [](Sev sev, int stream, const char* text) {
        return ExpectedIssue{Cat::MediaTime, sev, stream, text};
    };
    const ExpectedIssue noOpen{Cat::File, Critical, -1, "Couldn't open file"};
    const ExpectedIssue noStart = media(Highest, -1, "Couldn't estimate clip start timecode");
    const ExpectedIssue headerStart = media(High, 0, "Header: Start unknown");
    const std::vector<ExpectedIssue> noDuration = {
        media(Highest, -1, "Couldn't estimate clip duration"),
        media(High, 0, "Header: Stream duration unknown"),
        media(Warning, 0, "Header: Start time is off from clip by 0.01 sec"),
        media(Warning, 1, "Header: Stream duration unknown")};
    const ExpectedIssue noCodec{Cat::Codec, Critical, 0, "...Could not open codec pcm_s16le\n"};
    // clip, level, whether it opens, score, exactly these issues in any order
    const std::tuple<const char*, CheckLevel, bool, QcScore, std::vector<ExpectedIssue>> cases[] = {
        {"nothere.mov", 1, false, 0, {{Cat::File, Critical, -1, "Couldn't get file attributes"}}},
        {"text.mov", 1, false, 0, {noOpen}},
        {"random.mxf", 1, false, 0, {noOpen}},
        {"empty.mp4", 1, false, 0, {noOpen}},
        {"pcm.wav", 1, true, 1, {noStart, headerStart}},
        {"no_duration.mkv", 1, true, 1, noDuration},
        {"bits33.wav", 1, true, 0, {noStart, headerStart, {Codec, Critical, 0, "Cannot decode"}}},
        // The decoder is only opened for a decoding check.
        {"zero_channels.wav", 3, true, 0, {noCodec, noStart, headerStart}},
        {"zero_channels.wav", 2, true, 1, {noStart, headerStart}},
    };
    for (const auto& [clip, level, opens, score, issues] : cases) {
        SCOPED_TRACE(std::string(clip) + " at level " + std::to_string(level));
        bool opened = false;
        const QcResult result = openOnly((test::testMediaDir() / clip).string(), level, &opened);
        EXPECT_EQ(opened, opens);
        EXPECT_EQ(result.opened, opens);
        EXPECT_EQ(result.score(), score) << test::describe(result);
        EXPECT_EQ(result.issues.size(), issues.size()) << test::describe(result);
        for (const ExpectedIssue& e : issues) {
            EXPECT_EQ(test::countIssues(result, e), 1) << e.textStart << "\n"
                                                       << test::describe(result);
        }
    }
}

// Nothing but a regular file is opened: a FIFO or a device would block the open or the
// reads for ever.
TEST(ClipCheckerOpen, PathsThatAreNoRegularFileAreRefusedAtOnce)
{
    const test::TempDir dir;
    std::filesystem::create_directory(dir / "folder.mxf");
    ASSERT_EQ(::mkfifo((dir / "fifo.ts").c_str(), 0600), 0);
    for (const std::string& path :
         {(dir / "folder.mxf").string(), (dir / "fifo.ts").string(), std::string("/dev/zero")}) {
        SCOPED_TRACE(path);
        const QcResult result = openOnly(path, 3);
        ASSERT_EQ(result.issues.size(), 1U) << test::describe(result);
        EXPECT_EQ(result.issues.at(0).text, "Couldn't open file");
        EXPECT_EQ(result.facts.attributes & 0x10U, path.ends_with(".mxf") ? 0x10U : 0U);
    }
}

TEST(ClipCheckerOpen, FactsOfACleanMxf)
{
    const std::string path = test::testClip("mpeg2_pcm.mxf").string();
    ClipChecker checker;
    ASSERT_TRUE(checker.Open(path, 3, -1));
    ASSERT_TRUE(checker.EstimatedDuration().has_value());
    EXPECT_EQ(*checker.EstimatedDuration(), 2 * kTicksPerSecond);
    checker.Close();
    EXPECT_FALSE(checker.EstimatedDuration().has_value());

    const MediaFacts facts = checker.mediaFacts();
    struct stat st = {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    // Windows file time of the modification time: 100 ns units since 1601.
    EXPECT_EQ(facts.lastWriteTime / 10'000'000ULL - 11'644'473'600ULL,
              static_cast<std::uint64_t>(st.st_mtim.tv_sec));
    EXPECT_EQ(std::tuple(facts.fileSize, facts.attributes, facts.clipStart, facts.clipDuration),
              std::tuple(static_cast<std::uint64_t>(st.st_size), 0x20U, 0, 2 * kTicksPerSecond));
    EXPECT_EQ(facts.qcDuration, facts.clipDuration);
    const StreamFacts& v = facts.streams.at(0);
    const StreamFacts& a = facts.streams.at(1);
    EXPECT_EQ(std::tuple(v.type, v.codecName, v.width, v.height, v.frameRateNum, v.frameRateDen),
              std::tuple(StreamType::Video, "mpeg2video", 720, 576, 25, 1));
    EXPECT_EQ(std::tuple(a.type, a.codecName, a.channels, a.sampleRate, a.headerDuration),
              std::tuple(StreamType::Audio, "pcm_s16le", 1, 48000, 2 * kTicksPerSecond));
}

TEST(ClipCheckerOpen, CoverArtOfAnAudioContainerIsNeverChecked)
{
    ClipChecker checker;
    ASSERT_TRUE(checker.Open(test::testClip("cover.mp3").string(), 3, -1));
    EXPECT_EQ(checker.Run(nullptr), 1);
    checker.Close();
    const QcResult result = checker.result();
    ASSERT_EQ(result.facts.streams.size(), 2U);
    EXPECT_EQ(result.facts.streams[1].type, StreamType::Video);
    EXPECT_EQ(result.facts.streams[1].codecName, "png");
    // Never decoded: no decoded values, and no issue names the picture stream.
    EXPECT_EQ(result.facts.streams[1].decodedStart, kNoTime);
    for (const auto& issue : result.issues.all()) {
        EXPECT_NE(issue->streamIndex, 1) << issue->text;
    }
}

TEST(ClipCheckerOpen, ReopeningForgetsTheEarlierClip)
{
    ClipChecker checker;
    EXPECT_FALSE(checker.Open(test::testClip("text.mov").string(), 1, -1));
    checker.Close();
    ASSERT_TRUE(checker.Open(test::testClip("mpeg2_pcm.mxf").string(), 1, -1));
    EXPECT_EQ(checker.mediaFacts().streams.size(), 2U);
    EXPECT_TRUE(checker.issues().empty());
    EXPECT_TRUE(checker.result().opened);
}

// A level from a hand-written job or a foreign caller is brought to the nearest level there
// is, and the result says which level ran.
TEST(ClipCheckerOpen, ALevelOutsideOneToFourRunsTheNearestLevel)
{
    const std::pair<CheckLevel, CheckLevel> cases[] = {{-7, 1}, {0, 1}, {4, 4}, {5, 4}, {99, 4}};
    for (const auto& [asked, ran] : cases) {
        SCOPED_TRACE(asked);
        const std::atomic<std::int32_t> stop{0};
        ClipChecker checker;
        ASSERT_TRUE(checker.Open(test::testClip("h264_aac.mp4").string(), asked, -1));
        EXPECT_EQ(checker.Run(&stop), 1);
        checker.Close();
        EXPECT_EQ(checker.result().checkLevel, ran);
        EXPECT_EQ(checker.result().score(), 5);
        EXPECT_EQ(checker.result().facts.hash256.size(), ran >= 2 ? 64U : 0U)
            << "levels from 2 on read and hash the file";
    }
}

} // namespace
} // namespace tarvoqc
