#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "results/qcissue.h"

namespace tarvoqc {
namespace {

using Cat = QcIssueCategory;
using Sev = QcSeverity;
using Kind = QcStreamKind;

TEST(QcIssueList, ScoreFollowsWorstSeverityOnly)
{
    const std::tuple<std::vector<Sev>, QcScore, const char*> cases[] = {
        {{}, 5, "5/5 OK"},
        {{Sev::Warning}, 4, "4/5 Good"},
        {{Sev::Low, Sev::Warning}, 3, "3/5 Playable"},
        {{Sev::Warning, Sev::High, Sev::Low}, 2, "2/5 BAD"},
        {{Sev::Highest}, 1, "1/5 Very BAD"},
        {{Sev::Warning, Sev::Critical, Sev::Highest}, 0, "0/5 ERROR"}};
    for (const auto& [severities, score, text] : cases) {
        SCOPED_TRACE(text);
        QcIssueList list;
        for (Sev s : severities) {
            list.add(Cat::Frames, s, Kind::None, -1, "x");
        }
        EXPECT_EQ(list.score(), score);
        EXPECT_EQ(scoreText(list.score()), text);
    }
}

TEST(QcIssueList, SeverityCapDropsTheExtraIssuesSilently)
{
    QcIssueList list;
    for (int i = 0; i < 1000; ++i) {
        // Spread over categories so that only the severity cap can bite.
        list.add(static_cast<Cat>(i % kCategoryCount), Sev::Warning, Kind::None, -1,
                 std::to_string(i));
    }
    EXPECT_EQ(list.bySeverity(Sev::Warning).size(), kIssueCap);
    EXPECT_EQ(list.at(kIssueCap - 1).text, std::to_string(kIssueCap - 1)); // the first ones kept
    EXPECT_EQ(list.score(), 4) << "a thousand warnings still score 4";
    list.add(Cat::File, Sev::Low, Kind::None, -1, "other severity still counts");
    EXPECT_EQ(list.size(), kIssueCap + 1);
    EXPECT_EQ(list.score(), 3);
}

TEST(QcIssueList, CategoryCapBlocksEvenCriticalAndSurvivesClear)
{
    QcIssueList list;
    const Sev spread[] = {Sev::Warning, Sev::Low, Sev::High};
    for (std::size_t i = 0; i < kIssueCap; ++i) {
        list.add(Cat::Frames, spread[i % 3], Kind::Video, 0, "gap");
    }
    list.add(Cat::Frames, Sev::Critical, Kind::Video, 0, "blocked");
    EXPECT_EQ(list.size(), kIssueCap);
    EXPECT_EQ(list.score(), 2) << "the blocked Critical must not lower the score";

    list.clear();
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.score(), 5);
    list.add(Cat::Frames, Sev::Critical, Kind::Video, 0, "still blocked after clear");
    EXPECT_TRUE(list.empty());
    list.add(Cat::Codec, Sev::Critical, Kind::Video, 0, "other category");
    EXPECT_EQ(list.size(), 1U);

    // assign() goes through clear() and add(), so the closed category stays closed.
    QcIssueList source;
    source.add(Cat::Frames, Sev::Low, Kind::None, -1, "from source");
    list.assign(source);
    EXPECT_TRUE(list.empty());
}

TEST(QcIssueList, LineBuilders)
{
    // issue, short, long and stream lines
    const std::tuple<QcIssue, const char*, const char*, const char*> cases[] = {
        {{Cat::File, Sev::High, Kind::None, -1, "abc"}, "[High] abc", "File:[High] abc", "abc"},
        {{Cat::MediaTime, Sev::High, Kind::Audio, 1, "abc"},
         "[High] Stream 1 (Audio) abc",
         "MediaTime:[High] Stream 1 (Audio) abc",
         "Stream 1 (Audio) abc"},
        {{Cat::Frames, Sev::Warning, Kind::None, 2, "abc"},
         "[Warning] Stream 2 () abc",
         "Frames:[Warning] Stream 2 () abc",
         "Stream 2 () abc"}};
    for (const auto& [issue, shortText, longText, streamText] : cases) {
        SCOPED_TRACE(longText);
        EXPECT_EQ(QcIssueList::shortLine(issue), shortText);
        EXPECT_EQ(QcIssueList::longLine(issue), longText);
        EXPECT_EQ(QcIssueList::streamLine(issue), streamText);
    }
}

TEST(QcIssueList, ListLinesPutsWorstFirstThenOrderOfAddingAndCopiesKeepThem)
{
    QcIssueList list;
    std::vector<std::string> lines;
    list.listLines(lines);
    EXPECT_TRUE(lines.empty());
    EXPECT_THROW((void)list.at(0), std::out_of_range);

    list.add(Cat::Frames, Sev::Warning, Kind::Video, 0, "w1");
    list.add(Cat::MediaTime, Sev::Low, Kind::None, -1, "l1");
    list.add(Cat::Frames, Sev::Warning, Kind::Video, 0, "w2");
    list.add(Cat::File, Sev::Critical, Kind::None, -1, "c1");
    list.listLines(lines);
    const std::vector<std::string> expected = {"File:[Critical] c1", "MediaTime:[Low] l1",
                                               "Frames:[Warning] Stream 0 (Video) w1",
                                               "Frames:[Warning] Stream 0 (Video) w2"};
    EXPECT_EQ(lines, expected);
    const QcIssueList copy = list;
    lines.clear();
    copy.listLines(lines);
    EXPECT_EQ(lines, expected);
}

TEST(QcIssueList, TextIsCutAt1024CharactersWithoutSplittingUtf8)
{
    QcIssueList list;
    list.add(Cat::File, Sev::Low, Kind::None, -1, std::string(2000, 'a'));
    EXPECT_EQ(list.at(0).text.size(), 1024U);

    // 1023 ASCII characters and then two-byte characters: the cut keeps exactly one of them.
    const std::string text = std::string(1023, 'b') + "\xC3\xA9\xC3\xA9";
    list.add(Cat::File, Sev::Low, Kind::None, -1, text);
    EXPECT_EQ(list.at(1).text, std::string(1023, 'b') + "\xC3\xA9");
}

TEST(QcIssueTexts, TablesAndOutOfRange)
{
    // The texts in range are those of the score and line tests.
    EXPECT_EQ(severityText(static_cast<Sev>(9)), "");
    EXPECT_EQ(categoryText(static_cast<Cat>(6)), "");
    EXPECT_EQ(scoreText(-1), "");
    EXPECT_EQ(scoreText(6), "");
    EXPECT_EQ(scoreWord(1), "Very BAD");
    EXPECT_EQ(scoreWord(5), "");
}

} // namespace
} // namespace tarvoqc
