#include "results/qcissue.h"

#include <array>
#include <stdexcept>

namespace tarvoqc {

namespace {

constexpr std::array<std::string_view, kSeverityCount> kSeverityTexts = {"Warning", "Low", "High",
                                                                         "Highest", "Critical"};
constexpr std::array<std::string_view, kCategoryCount> kCategoryTexts = {
    "File", "MediaTime", "Codec", "Frames", "Video", "Audio"};
constexpr std::array<std::string_view, 6> kScoreTexts = {"0/5 ERROR",    "1/5 Very BAD", "2/5 BAD",
                                                         "3/5 Playable", "4/5 Good",     "5/5 OK"};
constexpr std::array<std::string_view, 5> kScoreWords = {"ERROR", "Very BAD", "BAD", "Playable",
                                                         "Good"};

template <typename Table, typename Index> std::string_view lookup(const Table& table, Index index)
{
    const auto i = static_cast<std::size_t>(index);
    return i < table.size() ? table[i] : std::string_view{};
}

} // namespace

std::string_view severityText(QcSeverity severity)
{
    return lookup(kSeverityTexts, severity);
}
std::string_view categoryText(QcIssueCategory category)
{
    return lookup(kCategoryTexts, category);
}
std::string_view scoreText(QcScore score)
{
    return score < 0 ? std::string_view{} : lookup(kScoreTexts, score);
}
std::string_view scoreWord(QcScore score)
{
    return score < 0 ? std::string_view{} : lookup(kScoreWords, score);
}

std::string_view streamKindText(QcStreamKind kind)
{
    switch (kind) {
    case QcStreamKind::Video:
        return "Video";
    case QcStreamKind::Audio:
        return "Audio";
    default:
        return {};
    }
}

std::string cutUtf8(std::string_view text, std::size_t maxChars)
{
    std::size_t chars = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        // A character starts at every byte that is not a continuation byte 10xxxxxx.
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (chars == maxChars) {
                return std::string(text.substr(0, i));
            }
            ++chars;
        }
    }
    return std::string(text);
}

QcIssueList::QcIssueList()
{
    m_all.reserve(kIssueCap);
}

// A copy holds only what it copies: results kept for every clip of a long list must not
// each carry room for the cap.
QcIssueList::QcIssueList(const QcIssueList& other)
{
    m_all.reserve(other.m_all.size());
    assign(other);
}

QcIssueList& QcIssueList::operator=(const QcIssueList& other)
{
    if (this != &other) {
        assign(other);
    }
    return *this;
}

void QcIssueList::add(QcIssueCategory category, QcSeverity severity, QcStreamKind streamKind,
                      std::int32_t streamIndex, std::string_view text)
{
    add(QcIssue{category, severity, streamKind, streamIndex, std::string(text)});
}

void QcIssueList::add(const QcIssue& issue)
{
    const auto sev = static_cast<std::size_t>(issue.severity);
    const auto cat = static_cast<std::size_t>(issue.category);
    if (sev >= kSeverityCount || cat >= kCategoryCount) {
        return;
    }
    if (m_severityCount[sev] >= kIssueCap || m_categoryCount[cat] >= kIssueCap) {
        return;
    }
    auto stored = std::make_unique<QcIssue>(issue);
    stored->text = cutUtf8(issue.text, kMaxIssueTextChars);
    m_all.push_back(std::move(stored));
    ++m_severityCount[sev];
    ++m_categoryCount[cat];
}

void QcIssueList::clear()
{
    m_severityCount = {};
    m_all.clear();
}

void QcIssueList::assign(const QcIssueList& other)
{
    // Copy first: other may share storage with nothing of ours, but assigning a list to
    // itself must not lose its issues.
    std::vector<QcIssue> copies;
    copies.reserve(other.m_all.size());
    for (const auto& issue : other.m_all) {
        copies.push_back(*issue);
    }
    clear();
    for (const auto& issue : copies) {
        add(issue);
    }
}

QcScore QcIssueList::score() const
{
    for (int sev = kSeverityCount - 1; sev >= 0; --sev) {
        if (m_severityCount[static_cast<std::size_t>(sev)] != 0) {
            return 4 - sev;
        }
    }
    return kBestScore;
}

const QcIssue& QcIssueList::at(std::size_t index) const
{
    if (index >= m_all.size()) {
        throw std::out_of_range("QcIssueList::at: index past the end");
    }
    return *m_all[index];
}

std::vector<const QcIssue*> QcIssueList::bySeverity(QcSeverity severity) const
{
    std::vector<const QcIssue*> result;
    for (const auto& issue : m_all) {
        if (issue->severity == severity) {
            result.push_back(issue.get());
        }
    }
    return result;
}

std::vector<const QcIssue*> QcIssueList::byCategory(QcIssueCategory category) const
{
    std::vector<const QcIssue*> result;
    for (const auto& issue : m_all) {
        if (issue->category == category) {
            result.push_back(issue.get());
        }
    }
    return result;
}

namespace {

// "Stream %d (%s) " of the issue's stream index and stream kind text.
void appendStreamPrefix(std::string& line, const QcIssue& issue)
{
    line.append("Stream ").append(std::to_string(issue.streamIndex)).append(" (");
    line.append(streamKindText(issue.streamKind)).append(") ");
}

} // namespace

std::string QcIssueList::shortLine(const QcIssue& issue)
{
    std::string line;
    line.append("[").append(severityText(issue.severity)).append("] ");
    if (issue.streamIndex >= 0) {
        appendStreamPrefix(line, issue);
    }
    return line.append(issue.text);
}

std::string QcIssueList::longLine(const QcIssue& issue)
{
    std::string line(categoryText(issue.category));
    return line.append(":").append(shortLine(issue));
}

std::string QcIssueList::streamLine(const QcIssue& issue)
{
    std::string line;
    if (issue.streamIndex >= 0) {
        appendStreamPrefix(line, issue);
    }
    return line.append(issue.text);
}

std::vector<const QcIssue*> QcIssueList::ordered() const
{
    std::vector<const QcIssue*> result;
    result.reserve(m_all.size());
    for (int sev = kSeverityCount - 1; sev >= 0; --sev) {
        for (const auto& issue : m_all) {
            if (issue->severity == static_cast<QcSeverity>(sev)) {
                result.push_back(issue.get());
            }
        }
    }
    return result;
}

void QcIssueList::listLines(std::vector<std::string>& lines) const
{
    for (const QcIssue* issue : ordered()) {
        lines.push_back(longLine(*issue));
    }
}

} // namespace tarvoqc
