#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "engine/clipchecker.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

// A media-time text ("1.50", "-01:01.25", "01:01:01", "1d 01:00:00") as seconds, and how
// far the number behind it may lie from it (the hundredths are cut, hours drop them).
struct ParsedTime
{
    double seconds = 0;
    double slack = 0;
};

std::optional<ParsedTime> parseTime(std::string text)
{
    double sign = 1;
    if (!text.empty() && text.front() == '-') {
        sign = -1;
        text.erase(0, 1);
    }
    // Days are past any test clip; their hours do not add up plainly (see formatMediaTime).
    if (text.find("d ") != std::string::npos) {
        return std::nullopt;
    }
    double seconds = 0;
    int parts = 0;
    for (std::size_t from = 0; parts < 4; ++parts) {
        const std::size_t colon = text.find(':', from);
        std::size_t used = 0;
        const std::string part = text.substr(from, colon - from);
        seconds = seconds * 60 + std::stod(part, &used);
        if (used != part.size()) {
            return std::nullopt;
        }
        if (colon == std::string::npos) {
            break;
        }
        from = colon + 1;
    }
    if (parts >= 3) {
        return std::nullopt;
    }
    return ParsedTime{sign * seconds, parts == 2 ? 1.0 : 0.01};
}

// Every kind of issue that names a place in its stream, with the parts of its text that
// give the place and, for runs, the length.
struct PositionedKind
{
    const char* name;
    std::regex pattern;
    int atGroup;
    int lengthGroup; // 0: not a run
    int levelFrom;   // the lowest level that raises it
};

const std::vector<PositionedKind>& positionedKinds()
{
    static const std::vector<PositionedKind> kinds = {
        {"frame time stamps", std::regex(R"(^(?:Gap in|Wrong) TC of \S+ at (\S+)$)"), 1, 0, 3},
        {"packet time stamps", std::regex(R"(^(?:Gap in stream|Wrong packet) TC of \S+ at (\S+)$)"),
         1, 0, 2},
        {"decode errors", std::regex(R"(^Error decoding packet at (\S+)$)"), 1, 0, 3},
        {"format changes", std::regex(R"(^Codec/data format mismatch at (\S+):)"), 1, 0, 3},
        {"picture runs",
         std::regex(R"(^(?:Black|Frozen|Damaged) picture for (\S+) sec from (\S+)(?: \(.*\))?$)"),
         2, 1, 4},
        {"silence", std::regex(R"(^Silence for (\S+) sec from (\S+)$)"), 2, 1, 4},
        {"clipping", std::regex(R"(^Clipped sound: \d+ samples at full scale, first at (\S+)$)"), 1,
         0, 4},
        {"decoder messages", std::regex(R"( decoder: .*, (?:first )?at ([^ )]+)\)$)"), 1, 0, 4},
    };
    return kinds;
}

void expectNear(const char* what, ClipTicks value, const std::string& text)
{
    const auto parsed = parseTime(text);
    ASSERT_TRUE(parsed) << what << " text " << text;
    ASSERT_NE(value, kNoTime) << what << " has no number beside " << text;
    const double seconds = hundredNsToSeconds(value);
    // The text cuts toward zero: the number lies at or beyond it by less than the slack.
    EXPECT_LT(std::fabs(seconds - parsed->seconds), parsed->slack + 1e-6)
        << what << " " << seconds << " against the text " << text;
}

// The place and length each issue carries as numbers are those its text tells, for every
// kind of positioned issue, over every clip the tests make, read at level 2 (packet time
// stamps) and checked in full at level 4; an issue of any other kind carries none.
TEST(IssuePositions, AgreeWithTheTextsOverEveryTestClip)
{
    std::vector<std::filesystem::path> clips;
    for (const auto& entry : std::filesystem::directory_iterator(test::testMediaDir())) {
        const std::string name = entry.path().filename().string();
        if (entry.is_regular_file() && name.front() != '.' && !name.ends_with(".png") &&
            name != "long.ts") {
            clips.push_back(entry.path());
        }
    }
    std::sort(clips.begin(), clips.end());
    ASSERT_GT(clips.size(), 40U);
    std::vector<int> seen(positionedKinds().size(), 0);
    for (const auto& path : clips) {
        for (const CheckLevel level : {2, 4}) {
            ClipChecker checker;
            if (checker.Open(path.string(), level, -1)) {
                checker.Run(nullptr);
            }
            checker.Close();
            const QcResult result = checker.result();
            for (const auto& issue : result.issues.all()) {
                SCOPED_TRACE(path.filename().string() + " level " + std::to_string(level) + ": " +
                             issue->text);
                std::smatch match;
                std::size_t kind = 0;
                while (kind < positionedKinds().size() &&
                       !std::regex_search(issue->text, match, positionedKinds()[kind].pattern)) {
                    ++kind;
                }
                if (kind == positionedKinds().size()) {
                    EXPECT_EQ(issue->at, kNoTime);
                    EXPECT_EQ(issue->length, kNoTime);
                    continue;
                }
                const PositionedKind& k = positionedKinds()[kind];
                ++seen[kind];
                EXPECT_GE(level, k.levelFrom);
                expectNear("at", issue->at, match[k.atGroup]);
                if (k.lengthGroup != 0) {
                    expectNear("length", issue->length, match[k.lengthGroup]);
                } else {
                    EXPECT_EQ(issue->length, kNoTime);
                }
            }
        }
    }
    for (std::size_t kind = 0; kind < seen.size(); ++kind) {
        if (std::string(positionedKinds()[kind].name) != "format changes") {
            EXPECT_GT(seen[kind], 0) << "no clip raised " << positionedKinds()[kind].name;
        }
    }
}

} // namespace
} // namespace tarvoqc
