#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Cat = QcIssueCategory;
using enum QcSeverity;

// The issues that level 4 adds from what the media libraries logged and from whether each
// stream decoded, as long lines in the list's order.
std::vector<std::string> loggedIssues(const QcResult& result)
{
    std::vector<std::string> lines;
    for (const QcIssue* issue : result.issues.ordered()) {
        const std::string& text = issue->text;
        if (text.find(" decoder: ") != std::string::npos ||
            text.find(" demuxer: ") != std::string::npos ||
            text.find(" decodable") != std::string::npos) {
            lines.push_back(QcIssueList::longLine(*issue));
        }
    }
    return lines;
}

QcResult checkClip(const std::string& name, CheckLevel level, int decoderThreads)
{
    ClipChecker checker;
    ClipCheckOptions options;
    options.decoderThreads = decoderThreads;
    checker.setOptions(options);
    if (checker.Open(test::testClip(name).string(), level, -1)) {
        EXPECT_EQ(checker.Run(nullptr), 1);
    }
    checker.Close();
    return checker.result();
}

// Each clip with every issue level 4 makes of what its demuxer and decoders logged (one
// per kind and source, in the library's words, with a count and the first position) and of
// streams that do not decode. Level 3 makes none of them.
const std::vector<std::tuple<const char*, std::vector<std::string>>>& cases()
{
    static const std::vector<std::tuple<const char*, std::vector<std::string>>> table = {
        {"l4_ffv1_crc.mkv",
         {"Video:[Highest] Stream 0 (Video) ffv1 decoder: slice CRC mismatch D0DFACE0!at 1.000000 "
          "seconds (once, at 1.00)"}},
        {"l4_flac_crc.mkv",
         {"Audio:[Highest] Stream 0 (Audio) flac decoder: CRC error at PTS 1920 (once, at 1.92)",
          "Audio:[Low] Stream 0 (Audio) flac decoder: overread: 1 (once, at 1.92)"}},
        {"l4_overrun.mkv",
         {"File:[Low] matroska,webm demuxer: Element at 0xe7 ending at 0x12a exceeds containing "
          "master element ending at 0x100 (5 times, first at byte 234)",
          "File:[Low] matroska,webm demuxer: Duplicate element (2 times, first at byte 75)",
          "File:[Low] matroska,webm demuxer: 0x00 at pos 167 (0xa7) invalid as first byte of an "
          "EBML number (once, at byte 168)"}},
        {"l4_j2k_most_bad.mkv",
         {"Codec:[High] Stream 0 (Video) Stream mostly not decodable: 8 of 10 packets failed to "
          "decode",
          "Video:[Low] Stream 0 (Video) jpeg2000 decoder: SOC marker not present (8 times, first "
          "at 0.04)"}},
        {"nothing_decodes.ts",
         {"Codec:[Highest] Stream 0 (Video) Stream not decodable: 50 packets, no frame decoded",
          "Video:[High] Stream 0 (Video) h264 decoder: non-existing PPS 0 referenced (50 times, "
          "first at 0.00)",
          "Video:[High] Stream 0 (Video) h264 decoder: decode_slice_header error (50 times, "
          "first at 0.00)",
          "Video:[High] Stream 0 (Video) h264 decoder: no frame! (50 times, first at 0.00)"}},
        {"h264_aac.mp4", {}},
        {"mpeg2_pcm.mxf", {}},
    };
    return table;
}

TEST(MediaLog, LoggedDefectsAndUndecodableStreamsAtLevel4)
{
    for (const auto& [clip, issues] : cases()) {
        SCOPED_TRACE(clip);
        const QcResult level4 = checkClip(clip, 4, 1);
        EXPECT_EQ(loggedIssues(level4), issues) << test::describe(level4);
        const QcResult level3 = checkClip(clip, 3, 1);
        EXPECT_TRUE(loggedIssues(level3).empty()) << test::describe(level3);
    }
}

// The library's log callback is one for the process: checks running at the same time, each
// with decoder frame threads, still get exactly their own messages. Under ThreadSanitizer
// the decoders keep to one thread: the media libraries are not instrumented, and their
// frame threads hand memory over through atomics it cannot see (false races in their own
// allocations).
#if defined(__SANITIZE_THREAD__)
constexpr int kDecoderThreads = 1;
#else
constexpr int kDecoderThreads = 2;
#endif

TEST(MediaLog, ChecksOnSeveralThreadsKeepTheirOwnMessages)
{
    std::vector<QcResult> results(cases().size());
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < cases().size(); ++i) {
        threads.emplace_back(
            [&results, i] { results[i] = checkClip(std::get<0>(cases()[i]), 4, kDecoderThreads); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t i = 0; i < cases().size(); ++i) {
        SCOPED_TRACE(std::get<0>(cases()[i]));
        EXPECT_EQ(loggedIssues(results[i]), std::get<1>(cases()[i])) << test::describe(results[i]);
    }
}

} // namespace
} // namespace tarvoqc
