#pragma once

#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "results/qcresult.h"

namespace tarvoqc::test {

// One expected issue: category, severity, stream (-1 for the clip) and the start of its text.
struct ExpectedIssue
{
    QcIssueCategory category;
    QcSeverity severity;
    int stream;
    std::string_view textStart;
};

inline bool matches(const QcIssue& issue, const ExpectedIssue& e)
{
    return issue.category == e.category && issue.severity == e.severity &&
           issue.streamIndex == e.stream && std::string_view(issue.text).starts_with(e.textStart);
}

inline int countIssues(const QcResult& result, const ExpectedIssue& e)
{
    int n = 0;
    for (const auto& issue : result.issues.all()) {
        n += matches(*issue, e) ? 1 : 0;
    }
    return n;
}

// Every issue of a result, one long line each, for failure messages.
inline std::string describe(const QcResult& result)
{
    std::string text = result.path + " scored " + std::string(scoreText(result.score())) + ":\n";
    for (const QcIssue* issue : result.issues.ordered()) {
        text += "  " + QcIssueList::longLine(*issue) + "\n";
    }
    return text;
}

// Any issue whose text starts with one of these words.
inline int countText(const QcResult& result, std::string_view textStart)
{
    int n = 0;
    for (const auto& issue : result.issues.all()) {
        n += std::string_view(issue->text).starts_with(textStart) ? 1 : 0;
    }
    return n;
}

} // namespace tarvoqc::test
