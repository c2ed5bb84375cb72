#include <atomic>
#include <chrono>
#include <random>
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
using Sev = QcSeverity;
using test::ExpectedIssue;

// The picture and sound issues of a check, and all its other issues as long lines.
struct Findings
{
    QcResult result;
    std::vector<const QcIssue*> content;
    std::vector<std::string> others;
};

Findings check(const std::string& name, CheckLevel level, const ClipCheckOptions& options)
{
    ClipChecker checker;
    checker.setOptions(options);
    if (checker.Open(test::testClip(name).string(), level, -1)) {
        EXPECT_EQ(checker.Run(nullptr), 1);
    }
    checker.Close();
    Findings f{checker.result(), {}, {}};
    for (const QcIssue* issue : f.result.issues.ordered()) {
        if (issue->category == Cat::Video || issue->category == Cat::Audio) {
            f.content.push_back(issue);
        } else {
            f.others.push_back(QcIssueList::longLine(*issue));
        }
    }
    return f;
}

// Each clip with exactly the picture and sound issues level 4 finds, worst first. Level 3
// finds none of them and everything else the same.
TEST(ContentChecks, PictureAndSoundFaultsOfLevel4)
{
    using enum QcSeverity;
    const ClipCheckOptions d; // the defaults: loudness is information
    ClipCheckOptions r128;    // the same limits as a delivery rule
    r128.loudnessRule = true;
    const ClipCheckOptions loud{-8.0, 1.0, -10.0, 0, true};
    const ClipCheckOptions shortForm{-8.0, 1.0, 0.0, 0, true, -20.0, -15.0};
    const auto video = [](Sev sev, const char* text) {
        return ExpectedIssue{Cat::Video, sev, 0, text};
    };
    const auto audio = [](Sev sev, const char* text, int stream = 0) {
        return ExpectedIssue{Cat::Audio, sev, stream, text};
    };
    // clip, options, issues
    const std::tuple<const char*, ClipCheckOptions, std::vector<ExpectedIssue>> cases[] = {
        {"l4_black_middle.mov", d, {video(High, "Black picture for 2.00 sec from 1.00")}},
        {"l4_black_lead.mov", d, {video(Warning, "Black picture for 2.00 sec from 0.00")}},
        {"l4_black_0.96.mov", d, {}},
        {"l4_black_1.00.mov", d, {video(Low, "Black picture for 1.00 sec from 1.00")}},
        {"l4_frozen.mov", d, {video(High, "Frozen picture for 3.00 sec from 1.00")}},
        {"l4_damaged.ts",
         d,
         {video(Low, "Damaged picture for 0.04 sec from 1.72 (concealed by the decoder)"),
          video(Low, "mpeg2video decoder: ac-tex damaged at 14 7 (once, at 1.72)"),
          video(Low, "mpeg2video decoder: Warning MVs not available (once, at 1.72)")}},
        {"l4_silent_gap.mov", d, {audio(High, "Silence for 3.00 sec from 2.00")}},
        {"l4_silent_track.mov", d, {audio(Warning, "Stream is silent", 1)}},
        {"l4_loud.mov", d, {audio(Warning, "Loudness -8.0 LUFS, target -23.0 LUFS +/- 1.0 LU")}},
        {"l4_loud.mov", r128, {audio(Highest, "Loudness -8.0 LUFS, target -23.0 LUFS +/- 1.0 LU")}},
        {"l4_loud.mov", loud, {audio(Low, "True peak -5.0 dBTP over the limit of -10.0 dBTP")}},
        {"l4_loud.mov",
         shortForm,
         {audio(Highest, "Short-term loudness -8.0 LUFS over the short-form limit of -20.0 LUFS"),
          audio(High, "Momentary loudness -8.0 LUFS over the short-form limit of -15.0 LUFS")}},
        {"l4_quiet.mov", d, {audio(Warning, "Loudness -33.0 LUFS, target -23.0 LUFS +/- 1.0 LU")}},
        {"l4_quiet.mov", r128, {audio(High, "Loudness -33.0 LUFS, target -23.0 LUFS +/- 1.0 LU")}},
        {"l4_within.mov", r128, {}},
        {"l4_over.mov",
         r128,
         {audio(Warning, "Loudness -21.9 LUFS, target -23.0 LUFS +/- 1.0 LU")}},
        // Loudness is judged only where it was measured: on 3 s or more, with a gated block.
        {"l4_short_loud.mov", r128, {}},
        {"l4_clicks.mov", r128, {}},
        {"l4_clipped.mov",
         r128,
         {audio(High, "Clipped sound: 263 samples at full scale, first at 1.00"),
          audio(Low, "True peak 0.3 dBTP over the limit of -1.0 dBTP")}},
        {"l4_clipped_s24.mov",
         d,
         {audio(High, "Clipped sound: 263 samples at full scale, first at 1.00"),
          audio(Warning, "True peak 0.3 dBTP over the limit of -1.0 dBTP")}},
        {"l4_clipped_f32.mov",
         d,
         {audio(High, "Clipped sound: 263 samples at full scale, first at 1.00"),
          audio(Warning, "True peak 0.3 dBTP over the limit of -1.0 dBTP")}},
        {"l4_clean_fades.mp4", d, {}},
        // A header's absurd rate never reaches the detectors (their set-up crashed on it).
        {"absurd_rate.wav",
         d,
         {audio(Warning, "Sound checks skipped: 2 channels at 134225728 Hz")}},
    };
    for (const auto& [clip, options, issues] : cases) {
        SCOPED_TRACE(clip);
        const Findings level4 = check(clip, 4, options);
        const Findings level3 = check(clip, 3, options);
        ASSERT_EQ(level4.content.size(), issues.size()) << test::describe(level4.result);
        for (std::size_t i = 0; i < issues.size(); ++i) {
            EXPECT_TRUE(test::matches(*level4.content[i], issues[i]))
                << QcIssueList::longLine(*level4.content[i]);
            EXPECT_EQ(level4.content[i]->text, issues[i].textStart);
        }
        EXPECT_TRUE(level3.content.empty()) << test::describe(level3.result);
        EXPECT_EQ(level4.others, level3.others);
    }
}

// A level-4 check stopped at any moment, with frames still queued for the detector thread,
// ends at once with its keys, and the checker is released cleanly (no hang, no leak).
TEST(ContentChecks, CancelledAtRandomMomentsEndsCleanly)
{
    const std::string path = test::testClip("long.ts").string();
    const std::string digest = test::sha256sumOf(path);
    std::mt19937 random(20261125);
    std::uniform_int_distribution<int> delayMs(0, 300);
    for (int round = 0; round < 6; ++round) {
        const int delay = delayMs(random);
        SCOPED_TRACE(delay);
        std::atomic<std::int32_t> cancel{0};
        ClipChecker checker;
        ASSERT_TRUE(checker.Open(path, 4, -1));
        std::thread stopper([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            cancel.store(1);
        });
        EXPECT_EQ(checker.Run(&cancel), 1);
        stopper.join();
        checker.Close();
        EXPECT_EQ(checker.result().facts.hash256, digest);
    }
}

} // namespace
} // namespace tarvoqc
