#pragma once

#include <QPixmap>
#include <QString>
#include <QWidget>
#include <vector>

#include "results/qcresult.h"

namespace tarvoqc {

// The selected clip's timeline under its issue tree: one lane per video or audio stream
// (and per other stream with a placed issue) over the clip's length, each issue with a
// place a mark (a run: a span) whose colour and height tell its severity, as the issue
// tree's marks do. Clicking a mark selects its issue (issueClicked); selectIssue marks the
// issue chosen elsewhere. A tooltip names the issue under the pointer.
//
// Thread-safety: the window thread.
class ClipTimeline : public QWidget
{
    Q_OBJECT

public:
    explicit ClipTimeline(QWidget* parent = nullptr);

    // Shows result's issues (null: nothing). Issues are named by their index in
    // result->issues.all(). The selection is cleared.
    void setResult(const QcResult* result);
    // Marks the issue of that index as selected (-1 or an issue without a mark: none).
    void selectIssue(int issue);
    int selectedIssue() const { return m_selected; }

    // The marks drawn now, for tests and accessibility: issue index and rectangle.
    int markCount() const { return static_cast<int>(m_marks.size()); }
    QRect markRect(int issue) const;
    // The clip's length the lanes stand for, in seconds (0: no timeline).
    double span() const { return m_span; }
    // Left edge and width of the lanes, in pixels.
    int lanesLeft() const;
    int lanesWidth() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

signals:
    void issueClicked(int issue);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    bool event(QEvent* event) override;

private:
    struct Lane
    {
        int stream = -1;
        QString label;
        double from = 0; // seconds in the clip
        double to = 0;
    };
    struct Mark
    {
        int issue = -1;
        int lane = 0;
        double at = 0; // seconds in the clip
        double length = 0;
        QcSeverity severity = QcSeverity::Warning;
        QString line;
    };

    int xOf(double seconds) const;
    int markAt(const QPoint& point) const;

    std::vector<Lane> m_lanes;
    std::vector<Mark> m_marks;
    double m_span = 0;
    int m_selected = -1;
};

} // namespace tarvoqc
