#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

namespace fs = std::filesystem;
using Cat = QcIssueCategory;
using Sev = QcSeverity;
using test::ExpectedIssue;

QcResult checkClip(const std::string& name, CheckLevel level,
                   const std::atomic<std::int32_t>* cancel = nullptr)
{
    ClipChecker checker;
    if (checker.Open(test::testClip(name).string(), level, -1)) {
        EXPECT_EQ(checker.Run(cancel), 1);
        EXPECT_EQ(checker.ClipProgress(), kProgressMax);
    }
    checker.Close();
    return checker.result();
}

int packetIssues(const QcResult& r)
{
    return test::countText(r, "Gap in stream TC of") + test::countText(r, "Wrong packet TC of");
}
int frameIssues(const QcResult& r)
{
    return test::countText(r, "Gap in TC of") + test::countText(r, "Wrong TC of");
}

// Two segments joined with a jump between them: the boundaries of the severity table, for
// video and audio, decoded (frame time stamps) and read only (packet time stamps).
TEST(DecodePass, TimeStampJumpsAtTheSeverityBoundaries)
{
    // Label, reported, forward, severity; a step back of exactly 0.01 s is fine.
    const std::tuple<const char*, bool, bool, Sev> cases[] = {
        {"under", false, true, Sev::Warning},        // +0.0099 s
        {"warning", true, true, Sev::Warning},       // +0.01 s
        {"low", true, true, Sev::Low},               // +0.25 s
        {"high", true, true, Sev::High},             // +2 s
        {"highest", true, true, Sev::Highest},       // +10 s
        {"back_under", false, false, Sev::Warning},  // -0.0099 s
        {"back_exact", false, false, Sev::Warning},  // -0.01 s
        {"back_warning", true, false, Sev::Warning}, // -0.0101 s
        {"back_low", true, false, Sev::Low},         // -0.5 s
    };
    for (const char* kind : {"video", "audio"}) {
        for (const auto& [label, reported, forward, severity] : cases) {
            const std::string clip = std::string("jump_") + kind + "_" + label + ".ts";
            SCOPED_TRACE(clip);
            const QcResult decoded = checkClip(clip, 3);
            const QcResult packets = checkClip(clip, 2);
            EXPECT_EQ(packetIssues(decoded), 0) << test::describe(decoded);
            EXPECT_EQ(frameIssues(packets), 0) << test::describe(packets);
            EXPECT_EQ(test::countText(packets, "Decoded"), 0) << test::describe(packets);
            if (!reported) {
                EXPECT_EQ(frameIssues(decoded), 0) << test::describe(decoded);
                EXPECT_EQ(packetIssues(packets), 0) << test::describe(packets);
                EXPECT_EQ(decoded.score(), 5) << test::describe(decoded);
                continue;
            }
            const ExpectedIssue frame{Cat::Frames, severity, 0,
                                      forward ? "Gap in TC of" : "Wrong TC of"};
            const ExpectedIssue packet{Cat::Frames, severity, 0,
                                       forward ? "Gap in stream TC of" : "Wrong packet TC of"};
            EXPECT_EQ(test::countIssues(decoded, frame), 1) << test::describe(decoded);
            EXPECT_EQ(frameIssues(decoded), 1) << test::describe(decoded);
            EXPECT_EQ(test::countIssues(packets, packet), 1) << test::describe(packets);
            EXPECT_EQ(packetIssues(packets), 1) << test::describe(packets);
            EXPECT_EQ(decoded.score(), 4 - static_cast<int>(severity)) << test::describe(decoded);
        }
    }
}

// Level 1 only opens the clip: nothing is read, hashed or decoded.
TEST(DecodePass, CleanClipsScoreOkAtEveryLevel)
{
    for (const char* clip : {"mpeg2_pcm.mxf", "h264_aac.mp4", "prores_pcm.mov"}) {
        for (CheckLevel level : {1, 2, 3}) {
            SCOPED_TRACE(std::string(clip) + " level " + std::to_string(level));
            const QcResult r = checkClip(clip, level);
            const bool read = level >= 2;
            EXPECT_TRUE(r.issues.empty()) << test::describe(r);
            EXPECT_EQ(r.facts.hash256, read ? test::sha256sumOf(test::testClip(clip)) : "");
            EXPECT_EQ(r.facts.fkey != 0U, read);
            for (const StreamFacts& s : r.facts.streams) {
                EXPECT_EQ(s.byteCount > 0, read);
                if (level == 3) {
                    // Within the reporting threshold (AAC priming makes the audio 5 ms longer).
                    EXPECT_LT(std::abs(s.decodedStart - s.headerStart), 100'000);
                    EXPECT_LT(std::abs(s.decodedEnd - s.decodedStart - s.headerDuration), 100'000);
                } else {
                    EXPECT_EQ(s.decodedStart, kNoTime);
                }
            }
        }
    }
}

TEST(DecodePass, DamagedClipsAndTheirScores)
{
    using enum QcSeverity;
    using enum QcIssueCategory;
    const auto media = [](Sev sev, int stream, const char* text) {
        return ExpectedIssue{MediaTime, sev, stream, text};
    };
    const char* gap = "Gap at end: last decoded is 1.96 sec before clip end";
    const auto noStart = media(Highest, 0, "Decoded data have no start timecode");
    const auto noEnd = media(Highest, 0, "Decoded data have no end timecode");
    const std::vector<ExpectedIssue> truncated = {
        media(Low, 0, gap), media(Low, 1, gap),
        media(Low, 0, "Decoded duration 1.96 sec under the one reported from header"),
        media(Warning, -1, "QC: Clip duration must be fixed from 4.00 to 2.08")};
    const std::vector<ExpectedIssue> audioLonger = {
        media(High, 0, "Header: Stream is shorter than clip duration by 2.00 sec"),
        media(High, 0, "Gap at end: last decoded is 2.00 sec before clip end. Last position 2.00")};
    const std::vector<ExpectedIssue> lateAudio = {
        media(Low, 1, "Header: Start time is off from clip by 0.98 sec"),
        media(Warning, 1, "Header: Stream is shorter than clip duration by"),
        media(Low, 1, "Decoded start difference from clip start of 0.98")};
    const char* rateChange = "Codec/data format mismatch at 1.91: 1x44100 vs 1x48000";
    // Clip, score, issues each present exactly once.
    const std::tuple<const char*, QcScore, std::vector<ExpectedIssue>> cases[] = {
        {"truncated.mxf", 3, truncated},
        {"audio_longer.mp4", 2, audioLonger},
        {"late_audio.ts", 3, lateAudio},
        {"rate_change.ts", 1, {{Frames, Highest, 0, rateChange}}},
        {"overwritten.ts", 4, {{Frames, Warning, 0, "Gap in TC of 0.16 at 1.88"}}},
        {"jump_audio_back_low.ts", 3, {{Frames, Low, 0, "Wrong TC of -0.50 at 1.42"}}},
        {"nothing_decodes.ts", 1, {noStart, noEnd}},
        // 61 KB claiming 16000 x 16000 pictures: refused by the picture-size limit instead
        // of costing gigabytes (the memory is measured by bench/hostile.sh).
        {"huge_picture.ts", 0, {{Codec, Critical, 0, "...Could not open codec h264"}, noStart}},
    };
    for (const auto& [clip, score, issues] : cases) {
        SCOPED_TRACE(clip);
        const QcResult r = checkClip(clip, 3);
        EXPECT_EQ(r.score(), score) << test::describe(r);
        for (const ExpectedIssue& e : issues) {
            EXPECT_EQ(test::countIssues(r, e), 1) << e.textStart << "\n" << test::describe(r);
        }
    }
}

// Clips whose whole issue list is known: durations a hair off their header (0.0099 s raises
// nothing, 0.01 s a Warning), a demuxer that fails half-way (the pass ends there, without an
// issue of its own), and a clip with no checked video or audio stream (its duration is
// corrected to 0).
TEST(DecodePass, ExactIssueListsOfHeaderAndDecodedDurations)
{
    using enum QcSeverity;
    const auto media = [](Sev sev, int stream, const char* text) {
        return ExpectedIssue{Cat::MediaTime, sev, stream, text};
    };
    const std::tuple<const char*, std::vector<ExpectedIssue>> cases[] = {
        {"track_short_0.0099.mp4", {}},
        {"track_short_0.01.mp4",
         {media(Warning, 0, "Header: Stream is shorter than clip duration by 0.01 sec"),
          media(Warning, 0,
                "Decoded duration 0.01 sec over the one reported from header. "
                "2.00 vs 1.99")}},
        {"clip_short_0.0099.mp4", {}},
        // The pair of the later end shows the stream's header duration, not the clip's.
        {"clip_short_0.01.mp4",
         {media(Warning, 0, "Header: Stream is longer than clip duration by 0.01 sec"),
          media(Warning, 0, "Later end: last decoded 0.01 sec over the clip end. 2.00 vs 2.00"),
          media(Warning, -1, "QC: Clip duration must be fixed from 1.99 to 2.00")}},
        {"demux_error.y4m",
         {media(Low, 0,
                "Decoded duration 1.00 sec under the one reported from header. "
                "Last position 1.00"),
          media(Low, 0, "Gap at end: last decoded is 1.00 sec before clip end. Last position 1.00"),
          media(Warning, -1, "QC: Clip duration must be fixed from 2.00 to 1.00")}},
        {"subtitles_only.mkv",
         {media(Highest, -1, "Couldn't estimate clip start timecode"),
          media(Warning, -1, "QC: Clip duration must be fixed from 2.00 to 0.00")}},
    };
    for (const auto& [clip, issues] : cases) {
        SCOPED_TRACE(clip);
        const QcResult r = checkClip(clip, 3);
        EXPECT_EQ(r.issues.size(), issues.size()) << test::describe(r);
        for (const ExpectedIssue& e : issues) {
            EXPECT_EQ(test::countIssues(r, e), 1) << e.textStart << "\n" << test::describe(r);
        }
        EXPECT_EQ(r.facts.hash256, test::sha256sumOf(test::testClip(clip)));
    }
    EXPECT_TRUE(checkClip("demux_error.y4m", 2).issues.empty());
}

// Raw H.264 carries no time stamps: every frame that comes out for a packet is reported, but
// not the frame a B-frame stream keeps in the decoder until it is drained at the end.
TEST(DecodePass, FramesWithoutTimecodeAreReportedUnlessDrained)
{
    const ExpectedIssue noTimecode{Cat::Frames, Sev::Low, 0,
                                   "Error in decoded frame, no timecode."};
    for (const auto& [clip, reported] :
         {std::pair{"no_timecode.h264", 25}, std::pair{"no_timecode_bframes.h264", 24}}) {
        SCOPED_TRACE(clip);
        const QcResult r = checkClip(clip, 3);
        EXPECT_EQ(test::countIssues(r, noTimecode), reported) << test::describe(r);
    }
}

TEST(DecodePass, StreamThatDecodesNothingGetsOnlyTheTwoMissingTimecodeIssues)
{
    const QcResult r = checkClip("nothing_decodes.ts", 3);
    int decodedChecks = 0;
    for (const auto& issue : r.issues.all()) {
        if (issue->category == Cat::MediaTime && issue->streamIndex == 0 &&
            !issue->text.starts_with("Header:")) {
            ++decodedChecks;
        }
    }
    EXPECT_EQ(decodedChecks, 2) << test::describe(r);
    EXPECT_GT(test::countText(r, "Error decoding packet at"), 0) << test::describe(r);
}

// The row of truncated.mxf above proves the text; this, the stored fact.
TEST(DecodePass, DurationIsCorrectedToTheLatestDecodedEnd)
{
    const QcResult r = checkClip("truncated.mxf", 3);
    ClipTicks latest = 0;
    for (const StreamFacts& s : r.facts.streams) {
        latest = std::max(latest, s.decodedEnd - r.facts.clipStart);
    }
    EXPECT_EQ(r.facts.qcDuration, latest);
}

TEST(DecodePass, CancelledRunStillHashesTheWholeFileAndEndsAtFullProgress)
{
    const std::string path = test::testClip("long.ts").string();
    std::atomic<std::int32_t> cancel{0};
    ClipChecker checker;
    ASSERT_TRUE(checker.Open(path, 3, -1));
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        // Stop once the read is well under way but far from its end.
        while (!done.load() && checker.ClipProgress() < 20000) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        cancel.store(1);
    });
    EXPECT_EQ(checker.Run(&cancel), 1);
    done.store(true);
    watcher.join();
    EXPECT_EQ(checker.ClipProgress(), kProgressMax);
    checker.Close();
    const QcResult r = checker.result();
    EXPECT_EQ(r.facts.hash256, test::sha256sumOf(path));
    // The decoded checks still ran, on what was decoded before the stop.
    const StreamFacts& video = r.facts.streams.at(0);
    ASSERT_NE(video.decodedEnd, kNoTime);
    EXPECT_LT(video.decodedEnd - video.decodedStart, 25 * kTicksPerSecond);
    EXPECT_EQ(test::countText(r, "Gap at end: last decoded is"), 2) << test::describe(r);
    EXPECT_EQ(test::countText(r, "QC: Clip duration must be fixed"), 1) << test::describe(r);
}

TEST(DecodePass, CancelBeforeTheFirstPacket)
{
    std::atomic<std::int32_t> cancel{1};
    const QcResult r = checkClip("mpeg2_pcm.mxf", 3, &cancel);
    EXPECT_EQ(r.facts.hash256, test::sha256sumOf(test::testClip("mpeg2_pcm.mxf")));
    EXPECT_EQ(test::countText(r, "Decoded data have no start timecode"), 2) << test::describe(r);
    EXPECT_EQ(r.facts.streams.at(0).byteCount, 0);
}

TEST(DecodePass, ClipChangedDuringTheCheckIsReported)
{
    const std::string original = test::readFile(test::testClip("mpeg2_pcm.mxf"));
    using Change = void (*)(const fs::path& clip, const std::string& bytes);
    const std::pair<const char*, Change> cases[] = {
        {"none", [](const fs::path&, const std::string&) {}},
        {"grown", [](const fs::path& c, const std::string& b) { test::writeFile(c, b + "tail"); }},
        {"truncated",
         [](const fs::path& c, const std::string& b) { fs::resize_file(c, b.size() / 2); }},
        {"touched",
         [](const fs::path& c, const std::string&) {
             fs::last_write_time(c, fs::last_write_time(c) - std::chrono::hours(1));
         }},
        {"replaced",
         [](const fs::path& c, const std::string& b) {
             test::writeFile(c.string() + ".new", b);
             fs::rename(c.string() + ".new", c);
         }},
    };
    for (const auto& [change, apply] : cases) {
        SCOPED_TRACE(change);
        const test::TempDir dir;
        const auto copy = dir / "clip.mxf";
        test::writeFile(copy, original);
        fs::last_write_time(copy, fs::file_time_type::clock::now() - std::chrono::hours(2));
        ClipChecker checker;
        ASSERT_TRUE(checker.Open(copy.string(), 2, -1));
        apply(copy, original);
        EXPECT_EQ(checker.Run(nullptr), 1);
        checker.Close();
        const QcResult r = checker.result();
        const bool changed = std::string_view(change) != "none";
        EXPECT_EQ(
            test::countIssues(r, {Cat::File, Sev::High, -1, "File changed while being checked"}),
            changed ? 1 : 0)
            << test::describe(r);
    }
}

TEST(DecodePass, WriteLockedClipIsNotRead)
{
    const test::TempDir dir;
    const auto copy = dir / "locked.mxf";
    test::writeFile(copy, test::readFile(test::testClip("mpeg2_pcm.mxf")));
    ClipChecker checker;
    ASSERT_TRUE(checker.Open(copy.string(), 3, -1));
    // Another program still writing the clip holds it open for writing.
    FILE* writer = std::fopen(copy.c_str(), "r+");
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(checker.Run(nullptr), -9);
    std::fclose(writer);
    EXPECT_EQ(checker.ClipProgress(), 0);
    const QcResult r = checker.result();
    ASSERT_EQ(r.issues.size(), 1U) << test::describe(r);
    EXPECT_EQ(r.issues.at(0).text, "Couldn't open, file is write locked");
    EXPECT_EQ(r.issues.at(0).severity, Sev::Critical);
    EXPECT_TRUE(r.facts.hash256.empty());
    EXPECT_EQ(r.facts.fkey, 0U);
}

} // namespace
} // namespace tarvoqc
