#pragma once

#include <QColor>
#include <QDateTime>
#include <QIcon>
#include <QString>

#include "results/qcresult.h"

class QTreeWidget;

namespace tarvoqc {

// The two panes under the grid that show the selected clip's result: the issue tree and
// the facts.
//
// Thread-safety: the window thread.

// Columns of the issue tree. Group rows ("File", "MediaTime", ...) span all three.
enum IssueTreeColumn : int {
    kIssueSeverityColumn = 0,
    kIssueStreamColumn = 1,
    kIssueTextColumn = 2,
    kIssueColumnCount = 3,
};

// The colour of a severity's marks: darker towards Critical.
QColor severityColour(QcSeverity severity);

// The mark of a severity: as many filled bars as its rank (Warning one .. Critical five)
// on its own colour, so the five read apart with or without colour.
QIcon severityMark(QcSeverity severity);

// Sets up the tree's header and columns (once).
void setUpIssueTree(QTreeWidget& tree);

// Fills the tree with the result's issues (empty for null): a group row per category in
// the order "File", "MediaTime", "Codec", "Frames", "Video", "Audio" when it holds issues,
// marked with its worst severity, and under it one row per issue in the order they were
// raised: severity (mark and word), stream, text; the long line as the tooltip. Each issue
// row holds its index in result->issues.all() as kIssueIndexRole data.
inline constexpr int kIssueIndexRole = Qt::UserRole + 1;
void showIssues(QTreeWidget& tree, const QcResult* result);

// The facts of a checked clip as a small HTML page: file, size, times, keys, check level
// and when it was checked (checkedAt; invalid: not shown), then one block per stream.
QString clipFactsHtml(const QcResult& result, const QDateTime& checkedAt);

} // namespace tarvoqc
