#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "batch/deliveryprofile.h"
#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;

DeliveryProfile parsed(const std::string& text)
{
    std::string error;
    auto profile = parseDeliveryProfile(text, "test.ini", error);
    EXPECT_TRUE(profile.has_value()) << error;
    return profile.value_or(DeliveryProfile{});
}

QcResult checked(const std::string& path, CheckLevel level, const ClipCheckOptions& options = {})
{
    ClipChecker checker;
    checker.setOptions(options);
    if (checker.Open(path, level, -1)) {
        checker.Run(nullptr);
    }
    checker.Close();
    return checker.result();
}

// The issues a profile added or changed, as long lines.
std::vector<std::string> lines(const QcResult& result)
{
    std::vector<std::string> out;
    result.issues.listLines(out);
    return out;
}

TEST(DeliveryProfile, BrokenProfilesAreRefusedWithTheirLineAndReason)
{
    const struct
    {
        const char* text;
        const char* error;
    } rows[] = {
        {"[Formats]\n", "test.ini:1: unknown section [Formats]"},
        {"Name = x\n", "test.ini:1: a key before the first section"},
        {"[Profile]\n\n; note\nName\n", "test.ini:4: no '=' in the line"},
        {"[Format]\nVideo.Frame = 25\n", "test.ini:2: unknown rule Video.Frame"},
        {"[Format]\nVideo.Size = 1920*1080\n", "test.ini:2: '1920*1080' is no picture size"},
        {"[Format]\nVideo.Scan = diagonal\n", "test.ini:2: 'diagonal' is no scan"},
        {"[Format]\nAudio.Channels = 2-x\n", "test.ini:2: '2-x' is no value of Audio.Channels"},
        {"[Format]\nAudio.Channels = 2.5\n", "test.ini:2: '2.5' is no value"},
        {"[Format]\nDuration = 10:00-9:00\n", "test.ini:2: '10:00-9:00' is no value of Duration"},
        {"[Format]\nDuration = 1:75\n", "test.ini:2: '1:75' is no value of Duration"},
        {"[Format]\nVideo.Codec = h264,,hevc\n", "test.ini:2: an empty entry"},
        {"[Format]\nVideo.FrameRate = 25\nVideo.FrameRate = 50\n",
         "test.ini:3: Video.FrameRate given twice (first on line 2)"},
        {"[Format]\nVideo.Size.Severity = Low\n",
         "test.ini:2: Video.Size.Severity without the rule Video.Size"},
        {"[Format]\nVideo.Size = 1x1\nVideo.Size.Severity = Bad\n",
         "test.ini:3: 'Bad' is no severity"},
        {"[Loudness]\nTarget = -100\n", "test.ini:2: Target must be a number from -70 to 0"},
        {"[Loudness]\nTarget = loud\n", "test.ini:2: Target must be a number"},
        {"[Loudness]\nGate = -70\n", "test.ini:2: unknown key Gate in [Loudness]"},
        {"[Severity]\nGap* = Worst\n", "test.ini:2: 'Worst' is no severity"},
        {"[Profile]\nName = a\n[Profile]\n", "test.ini:3: section [Profile] given twice"},
        {"[Profile]\nName =\n", "test.ini:2: Name has no value"},
        {"[Content]\nBlack = 0.01\n", "test.ini:2: Black must be a time from 0.1 s"},
        {"[Content]\nLeadInOut = maybe\n", "test.ini:2: LeadInOut must be allowed or graded"},
    };
    for (const auto& row : rows) {
        std::string error;
        EXPECT_FALSE(parseDeliveryProfile(row.text, "test.ini", error).has_value()) << row.text;
        EXPECT_TRUE(error.starts_with(row.error)) << row.text << " gave: " << error;
    }
}

// Hostile bytes: every mutation of a real profile either parses or is refused with its
// file and line, never a crash (run under the sanitizers too).
TEST(DeliveryProfile, MangledProfilesParseOrAreRefusedWithALine)
{
    const std::string base =
        test::readFile(std::filesystem::path(TARVOQC_SOURCE_DIR) / "profiles" / "ebu-r128-hd.ini") +
        "[Severity]\n* decoder: * = at least High\n";
    std::mt19937 random(20261125);
    for (int round = 0; round < 3000; ++round) {
        std::string text = base;
        for (int edits = 1 + static_cast<int>(random() % 4); edits > 0; --edits) {
            const std::size_t at = random() % text.size();
            switch (random() % 3) {
            case 0:
                text[at] = static_cast<char>(random() % 256);
                break;
            case 1:
                text.erase(at, 1 + random() % 8);
                break;
            default:
                text.insert(at, std::string(1 + random() % 3, "=-,:[]*x0\n"[random() % 10]));
            }
        }
        std::string error;
        if (!parseDeliveryProfile(text, "m.ini", error)) {
            ASSERT_TRUE(error.starts_with("m.ini:")) << error;
        }
    }
}

TEST(DeliveryProfile, EveryShippedProfileLoadsAndTechnicalChangesNothing)
{
    std::map<std::string, DeliveryProfile> shipped;
    for (const auto& entry : std::filesystem::directory_iterator(
             std::filesystem::path(TARVOQC_SOURCE_DIR) / "profiles")) {
        std::string error;
        auto profile = loadDeliveryProfile(entry.path().string(), error);
        ASSERT_TRUE(profile.has_value()) << error;
        shipped[entry.path().stem().string()] = *profile;
    }
    for (const char* name :
         {"technical", "ebu-r128-hd", "atsc-a85", "streaming", "archive-master"}) {
        EXPECT_EQ(shipped.count(name), 1U) << name;
    }
    EXPECT_TRUE(shipped["technical"].technical());

    // Graded by "technical", a clip's result is the one without a profile, issue for issue.
    const QcResult plain = checked(test::testClip("jump_video_high.ts").string(), 3);
    QcResult graded = plain;
    applyDeliveryProfile(shipped["technical"], graded);
    EXPECT_EQ(lines(graded), lines(plain));
    EXPECT_EQ(graded.profile, "technical");
    EXPECT_FALSE(plain.issues.empty());
}

// Each format rule as a row: the clip, the rule, and the one issue it raises (none when the
// clip keeps the rule). "wide" is 320x240 at 25 fps, progressive H.264 with stereo AAC at
// 48 kHz, 2 s, in MP4; "odd" is 640x480 at 29.97 fps, interlaced top field first H.264 with
// mono 16-bit PCM at 44.1 kHz, 2 s, in MOV, made here.
TEST(DeliveryProfile, FormatRulesOnRealClips)
{
    test::TempDir dir;
    const std::string odd = (dir / "odd.mov").string();
    const auto made = test::runCommand({"ffmpeg",
                                        "-nostdin",
                                        "-loglevel",
                                        "error",
                                        "-f",
                                        "lavfi",
                                        "-i",
                                        "testsrc2=size=640x480:rate=30000/1001:duration=2",
                                        "-f",
                                        "lavfi",
                                        "-i",
                                        "sine=sample_rate=44100:duration=2",
                                        "-vf",
                                        "setfield=tff",
                                        "-c:v",
                                        "libx264",
                                        "-preset",
                                        "ultrafast",
                                        "-x264-params",
                                        "interlaced=1:tff=1:threads=1",
                                        "-c:a",
                                        "pcm_s16le",
                                        "-ac",
                                        "1",
                                        "-f",
                                        "mov",
                                        odd});
    ASSERT_EQ(made.status, 0) << made.err;
    const std::map<std::string, QcResult> clips = {
        {"wide", checked(test::testClip("h264_aac.mp4").string(), 3)},
        {"odd", checked(odd, 3)},
    };
    const struct
    {
        const char* clip;
        const char* rule;
        Cat category;
        Sev severity;
        int stream;
        const char* issue; // empty: the clip keeps the rule
    } rows[] = {
        {"wide", "Video.FrameRate = 25", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.FrameRate = 25", Cat::Codec, Sev::High, 0,
         "Frame rate 29.97, profile wants 25"},
        {"odd", "Video.FrameRate = 30000/1001", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.FrameRate = 29.97", Cat::Codec, Sev::High, 0, ""},
        {"wide", "Video.Size = 320x240, 1920x1080", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.Size = 1920x1080", Cat::Codec, Sev::High, 0,
         "Picture size 640x480, profile wants 1920x1080"},
        {"wide", "Video.Scan = progressive", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.Scan = progressive", Cat::Codec, Sev::High, 0,
         "Scan interlaced tff, profile wants progressive"},
        {"odd", "Video.Scan = interlaced", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.Scan = bff", Cat::Codec, Sev::High, 0,
         "Scan interlaced tff, profile wants bff"},
        {"wide", "Video.Scan = tff", Cat::Codec, Sev::High, 0,
         "Scan progressive, profile wants tff"},
        {"wide", "Video.Codec = H264", Cat::Codec, Sev::High, 0, ""},
        {"odd", "Video.PixelFormat = yuv422p10le", Cat::Codec, Sev::High, 0,
         "Pixel format yuv420p, profile wants yuv422p10le"},
        {"wide", "Video.AspectRatio = 16:9", Cat::Codec, Sev::High, 0,
         "Display aspect ratio 4:3, profile wants 16:9"},
        {"wide", "Audio.Channels = 2", Cat::Codec, Sev::High, 1, ""},
        {"odd", "Audio.Channels = 2", Cat::Codec, Sev::High, 1, "Channels 1, profile wants 2"},
        {"odd", "Audio.Channels = 1-2", Cat::Codec, Sev::High, 1, ""},
        {"wide", "Audio.SampleRate = 48000", Cat::Codec, Sev::High, 1, ""},
        {"odd", "Audio.SampleRate = 48000", Cat::Codec, Sev::High, 1,
         "Sample rate 44100, profile wants 48000"},
        {"odd", "Audio.BitDepth = 24", Cat::Codec, Sev::High, 1,
         "Audio bit depth 16, profile wants 24"},
        {"wide", "Audio.Codec = pcm_s24le", Cat::Codec, Sev::High, 1,
         "Audio codec aac, profile wants pcm_s24le"},
        {"wide", "Audio.Streams = 2-8", Cat::Codec, Sev::High, -1,
         "Audio streams 1, profile wants 2-8"},
        {"wide", "Subtitle.Streams = 1", Cat::Codec, Sev::High, -1,
         "Subtitle streams 0, profile wants 1"},
        {"wide", "Container = mp4", Cat::Codec, Sev::High, -1, ""},
        {"odd", "Container = mxf", Cat::Codec, Sev::High, -1, "Container mov, profile wants mxf"},
        {"wide", "Duration = 1.5-2.5", Cat::MediaTime, Sev::High, -1, ""},
        {"wide", "Duration = 10:00-10:30", Cat::MediaTime, Sev::High, -1,
         "Duration 2.00, profile wants 10:00-10:30"},
        {"wide", "Duration = 10:00-10:30\nDuration.Severity = Highest", Cat::MediaTime,
         Sev::Highest, -1, "Duration 2.00, profile wants 10:00-10:30"},
        {"wide", "BitRate = 5000-9000", Cat::Codec, Sev::Low, -1,
         "Bit rate 419 kbit/s, profile wants 5000-9000 kbit/s"},
        // A colour description the clip does not carry cannot be confirmed: a Warning.
        {"wide", "Video.ColourPrimaries = bt709", Cat::Codec, Sev::Warning, 0,
         "Colour primaries unknown, profile wants bt709"},
    };
    for (const auto& row : rows) {
        const DeliveryProfile profile = parsed(std::string("[Format]\n") + row.rule + "\n");
        QcResult result = clips.at(row.clip);
        const std::size_t before = result.issues.size();
        applyDeliveryProfile(profile, result);
        if (*row.issue == '\0') {
            EXPECT_EQ(result.issues.size(), before) << row.clip << " " << row.rule << "\n"
                                                    << test::describe(result);
            continue;
        }
        ASSERT_EQ(result.issues.size(), before + 1) << row.clip << " " << row.rule;
        EXPECT_EQ(result.issues.all().back()->text, row.issue) << row.rule;
        EXPECT_TRUE(test::matches(*result.issues.all().back(),
                                  {row.category, row.severity, row.stream, row.issue}))
            << row.rule << "\n"
            << test::describe(result);
    }
}

// A profile's loudness rule grades level 4's measures: a clip on its target passes, one off
// it is graded by how far, and the short-form limit holds for a short programme.
TEST(DeliveryProfile, LoudnessRulesGradeLevel4)
{
    const struct
    {
        const char* clip;
        const char* loudness;
        Sev severity;     // of the one loudness issue
        const char* text; // empty: none
    } rows[] = {
        {"l4_loud.mov", "Target = -8\nTolerance = 1\nTruePeak = 0", Sev::Warning, ""},
        {"l4_loud.mov", "Target = -23\nTolerance = 0.5\nTruePeak = 0", Sev::Highest,
         "Loudness -8.0 LUFS, target -23.0 LUFS +/- 0.5 LU"},
        {"l4_loud.mov", "Target = -16\nTolerance = 1\nTruePeak = 0", Sev::High,
         "Loudness -8.0 LUFS, target -16.0 LUFS +/- 1.0 LU"},
        {"l4_loud.mov", "Target = -8\nTruePeak = -10", Sev::Low,
         "True peak -5.0 dBTP over the limit of -10.0 dBTP"},
        {"l4_loud.mov", "Target = -8\nTolerance = 1\nTruePeak = 0\nShortTerm = -20", Sev::Highest,
         "Short-term loudness -8.0 LUFS over the short-form limit of -20.0 LUFS"},
    };
    for (const auto& row : rows) {
        ClipCheckOptions options;
        applyProfileOptions(parsed(std::string("[Loudness]\n") + row.loudness + "\n"), options);
        ASSERT_TRUE(options.loudnessRule);
        const QcResult result = checked(test::testClip(row.clip).string(), 4, options);
        int found = 0;
        for (const auto& issue : result.issues.all()) {
            const bool loudness = issue->text.starts_with("Loudness") ||
                                  issue->text.starts_with("Short-term") ||
                                  issue->text.starts_with("True peak");
            if (loudness) {
                ++found;
                EXPECT_TRUE(issue->text.starts_with(row.text)) << issue->text;
                EXPECT_EQ(issue->severity, row.severity) << issue->text;
            }
        }
        EXPECT_EQ(found, *row.text == '\0' ? 0 : 1) << row.loudness << "\n"
                                                    << test::describe(result);
    }
}

// A profile's content rules: the shortest black, frozen and silent runs told, and lead-in
// and lead-out runs graded like any other. "gap" (made here) holds 1 s of silence from 2 s:
// shorter than the silence detector waits for by default.
TEST(DeliveryProfile, ContentRulesSetTheShortestRunsAndTheLeadInOut)
{
    test::TempDir dir;
    const std::string gap = (dir / "gap.mov").string();
    const auto made =
        test::runCommand({"ffmpeg", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i",
                          "aevalsrc=0.1*sin(2*PI*1000*t)*not(between(t\\,2\\,3)):s=48000:d=6",
                          "-c:a", "pcm_s16le", "-f", "mov", gap});
    ASSERT_EQ(made.status, 0) << made.err;
    const struct
    {
        std::string clip;
        const char* content;
        Sev severity;
        const char* text; // the one run told; empty: none
    } rows[] = {
        {test::testClip("l4_black_lead.mov").string(), "LeadInOut = allowed", Sev::Warning,
         "Black picture for 2.00 sec from 0.00"},
        {test::testClip("l4_black_lead.mov").string(), "LeadInOut = graded", Sev::High,
         "Black picture for 2.00 sec from 0.00"},
        {test::testClip("l4_black_0.96.mov").string(), "Black = 0.5", Sev::Low,
         "Black picture for 0.96 sec from 1.00"},
        {test::testClip("l4_black_1.00.mov").string(), "Black = 1.5", Sev::Low, ""},
        {test::testClip("l4_frozen.mov").string(), "Frozen = 4", Sev::High, ""},
        {test::testClip("l4_frozen.mov").string(), "Frozen = 1", Sev::High,
         "Frozen picture for 3.00 sec from 1.00"},
        {test::testClip("l4_silent_gap.mov").string(), "Silence = 00:05", Sev::High, ""},
        {gap, "Black = 1", Sev::Low, ""},
        {gap, "Silence = 0.5", Sev::Low, "Silence for 1.00 sec from 2.00"},
    };
    for (const auto& row : rows) {
        ClipCheckOptions options;
        applyProfileOptions(parsed(std::string("[Content]\n") + row.content + "\n"), options);
        const QcResult result = checked(row.clip, 4, options);
        std::vector<const QcIssue*> runs;
        for (const auto& issue : result.issues.all()) {
            if (issue->text.find(" sec from ") != std::string::npos) {
                runs.push_back(issue.get());
            }
        }
        SCOPED_TRACE(row.clip + " " + row.content + "\n" + test::describe(result));
        ASSERT_EQ(runs.size(), *row.text == '\0' ? 0U : 1U);
        if (!runs.empty()) {
            EXPECT_EQ(runs[0]->text, row.text);
            EXPECT_EQ(runs[0]->severity, row.severity);
        }
    }
}

TEST(DeliveryProfile, SeverityOverridesAdaptTheVerdicts)
{
    QcResult result;
    result.opened = true;
    for (const auto& [severity, text] :
         {std::pair{Sev::Highest, "Couldn't estimate clip start timecode"},
          std::pair{Sev::Low, "h264 decoder: error while decoding MB 3 4 (2 times, first at 1.00)"},
          std::pair{Sev::Highest, "flac decoder: invalid residual (12 times, first at 0.50)"},
          std::pair{Sev::High, "Gap in TC of 2.00 at 4.00"}}) {
        result.issues.add(Cat::MediaTime, severity, QcStreamKind::None, -1, text);
    }
    applyDeliveryProfile(parsed("[Severity]\n"
                                "Couldn't estimate clip start timecode = Warning\n"
                                "* decoder: * = at least High\n"
                                "Gap in TC of * = at most Low\n"
                                "Gap in TC * = Critical\n"),
                         result);
    std::vector<Sev> severities;
    for (const auto& issue : result.issues.all()) {
        severities.push_back(issue->severity);
    }
    // The first matching line decides; a raise never lowers, a cap never raises.
    EXPECT_EQ(severities, (std::vector<Sev>{Sev::Warning, Sev::High, Sev::Highest, Sev::Low}));
    EXPECT_EQ(result.score(), 1);
}

} // namespace
} // namespace tarvoqc
