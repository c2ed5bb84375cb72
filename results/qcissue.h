#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "results/mediatime.h"

namespace tarvoqc {

// Severity of an issue; higher is worse. Values index the severity texts.
enum class QcSeverity : std::uint32_t { Warning = 0, Low = 1, High = 2, Highest = 3, Critical = 4 };
inline constexpr int kSeverityCount = 5;

// What an issue is about. Values index the category texts.
enum class QcIssueCategory : std::uint32_t {
    File = 0,
    MediaTime = 1,
    Codec = 2,
    Frames = 3,
    Video = 4,
    Audio = 5
};
inline constexpr int kCategoryCount = 6;

// Kind of stream an issue concerns: 0 none or other, 1 video, 2 audio.
enum class QcStreamKind : std::int32_t { None = 0, Video = 1, Audio = 2 };

// A clip's score: 5 without issues, else 4 minus the worst severity present.
using QcScore = int;
inline constexpr QcScore kBestScore = 5;

// Texts of the tables. Out-of-range values give the empty string.
std::string_view severityText(QcSeverity severity);
std::string_view categoryText(QcIssueCategory category);
std::string_view streamKindText(QcStreamKind kind);
std::string_view scoreText(QcScore score); // "0/5 ERROR" .. "5/5 OK"

// The short words of the score threshold choices, best first: "Good" (4) .. "ERROR" (0).
// scoreWord(score) gives the word of a score 0..4 and the empty string for 5.
std::string_view scoreWord(QcScore score);

// Most characters an issue text keeps; a longer message is cut there (never inside a
// UTF-8 sequence).
inline constexpr std::size_t kMaxIssueTextChars = 1024;
// Most issues kept per severity and, separately, per category.
inline constexpr std::size_t kIssueCap = 255;

// Cuts a UTF-8 text to at most maxChars characters without splitting a sequence.
std::string cutUtf8(std::string_view text, std::size_t maxChars);

struct QcIssue
{
    QcIssueCategory category = QcIssueCategory::File;
    QcSeverity severity = QcSeverity::Warning;
    QcStreamKind streamKind = QcStreamKind::None;
    std::int32_t streamIndex = -1; // negative: the issue concerns the whole clip
    std::string text;              // UTF-8, at most kMaxIssueTextChars characters
    // Where in the stream the issue is, as its text says it: ClipTicks from the start of the
    // stream (of the clip for clip issues), kNoTime when the issue has no place. length is
    // the extent of a run (black, frozen, damaged pictures, silence), kNoTime otherwise.
    ClipTicks at = kNoTime;
    ClipTicks length = kNoTime;

    bool hasPosition() const { return at != kNoTime; }
    bool operator==(const QcIssue&) const = default;
};

// The issues of one clip, in the order of adding, with a cap of 255 per severity and
// per category. The category counts survive clear() and assign(): once a category has
// seen 255 issues it stays closed for the life of the list.
//
// Thread-safety: none. The checker guards its list with its own lock; readers take a
// copy under that lock or read after the check has ended.
class QcIssueList
{
public:
    QcIssueList();
    QcIssueList(const QcIssueList& other);
    QcIssueList& operator=(const QcIssueList& other);
    QcIssueList(QcIssueList&&) noexcept = default;
    QcIssueList& operator=(QcIssueList&&) noexcept = default;
    virtual ~QcIssueList() = default;

    // Stores the issue unless its severity or its category already holds 255 issues;
    // a dropped issue leaves no trace. Out-of-range severity or category values are
    // dropped too.
    void add(QcIssueCategory category, QcSeverity severity, QcStreamKind streamKind,
             std::int32_t streamIndex, std::string_view text);
    // The same for a whole issue, its position included; the text is cut as above.
    void add(const QcIssue& issue);

    // Forgets every issue; the per-category counts stay (see the class comment).
    void clear();

    // clear(), then add() of each issue of other in its order.
    void assign(const QcIssueList& other);

    QcScore score() const;

    // Every issue in the order of adding.
    std::size_t size() const { return m_all.size(); }
    bool empty() const { return m_all.empty(); }
    const QcIssue& at(std::size_t index) const; // throws std::out_of_range past the end
    const std::vector<std::unique_ptr<QcIssue>>& all() const { return m_all; }

    // The issues of one severity or one category, in the order of adding.
    std::vector<const QcIssue*> bySeverity(QcSeverity severity) const;
    std::vector<const QcIssue*> byCategory(QcIssueCategory category) const;

    // Issue lines: "[High] abc", "MediaTime:[High] Stream 1 (Audio) abc", "Stream 1 (Audio) abc".
    static std::string shortLine(const QcIssue& issue);
    static std::string longLine(const QcIssue& issue);
    static std::string streamLine(const QcIssue& issue);

    // Appends the long line of every issue, Critical first down to Warning, each
    // severity in the order of adding.
    void listLines(std::vector<std::string>& lines) const;

    // Every issue in listLines order.
    std::vector<const QcIssue*> ordered() const;

private:
    std::vector<std::unique_ptr<QcIssue>> m_all;
    // Counts, not lists: a finished clip's record is kept for every clip of a long run, and
    // the lists by severity or category are made from m_all when asked for.
    std::array<std::uint16_t, kSeverityCount> m_severityCount = {};
    std::array<std::uint16_t, kCategoryCount> m_categoryCount = {};
};

} // namespace tarvoqc
