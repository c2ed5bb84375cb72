#include "ui/cliptimeline.h"

#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>
#include <algorithm>
#include <cmath>

#include "ui/resultpanes.h"

namespace tarvoqc {

namespace {

constexpr int kLaneHeight = 18;
constexpr int kMargin = 4;
constexpr int kLabelWidth = 64;
constexpr int kMinimumMark = 3;

double secondsOf(ClipTicks ticks)
{
    return ticks == kNoTime ? 0.0 : hundredNsToSeconds(ticks);
}

} // namespace

ClipTimeline::ClipTimeline(QWidget* parent) : QWidget(parent)
{
    setMouseTracking(false);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setAccessibleName(QStringLiteral("Timeline of the clip"));
}

void ClipTimeline::setResult(const QcResult* result)
{
    m_lanes.clear();
    m_marks.clear();
    m_span = 0;
    m_selected = -1;
    if (result != nullptr) {
        const MediaFacts& facts = result->facts;
        // Where each stream begins in the clip.
        const auto offset = [&](std::size_t stream) {
            const StreamFacts& s = facts.streams[stream];
            return s.headerStart == kNoTime || facts.clipStart == kNoTime
                       ? 0.0
                       : secondsOf(s.headerStart) - secondsOf(facts.clipStart);
        };
        m_span = facts.clipDuration != kNoTime && facts.clipDuration > 0
                     ? secondsOf(facts.clipDuration)
                     : 0.0;
        for (std::size_t i = 0; i < facts.streams.size() && m_span <= 0; ++i) {
            if (facts.streams[i].headerDuration != kNoTime) {
                m_span = std::max(m_span, offset(i) + secondsOf(facts.streams[i].headerDuration));
            }
        }
        const auto& issues = result->issues.all();
        for (std::size_t i = 0; i < facts.streams.size() && m_span > 0; ++i) {
            const StreamFacts& s = facts.streams[i];
            const bool placed = std::any_of(issues.begin(), issues.end(), [&](const auto& issue) {
                return issue->streamIndex == static_cast<int>(i) && issue->hasPosition();
            });
            if (s.type != StreamType::Video && s.type != StreamType::Audio && !placed) {
                continue;
            }
            const double from = offset(i);
            const double to = s.headerDuration == kNoTime || s.headerDuration <= 0
                                  ? m_span
                                  : from + secondsOf(s.headerDuration);
            m_lanes.push_back({static_cast<int>(i),
                               QStringLiteral("%1 %2").arg(i).arg(
                                   QString::fromUtf8(streamTypeText(s.type).data())),
                               from, to});
            for (std::size_t k = 0; k < issues.size(); ++k) {
                const QcIssue& issue = *issues[k];
                if (issue.streamIndex != static_cast<int>(i) || !issue.hasPosition()) {
                    continue;
                }
                m_marks.push_back({static_cast<int>(k), static_cast<int>(m_lanes.size() - 1),
                                   from + secondsOf(issue.at),
                                   issue.length == kNoTime ? 0.0 : secondsOf(issue.length),
                                   issue.severity,
                                   QString::fromUtf8(QcIssueList::longLine(issue).c_str())});
            }
        }
    }
    updateGeometry();
    update();
}

void ClipTimeline::selectIssue(int issue)
{
    const bool marked = std::any_of(m_marks.begin(), m_marks.end(),
                                    [&](const Mark& mark) { return mark.issue == issue; });
    m_selected = marked ? issue : -1;
    update();
}

int ClipTimeline::lanesLeft() const
{
    return kMargin + kLabelWidth;
}

int ClipTimeline::lanesWidth() const
{
    return std::max(1, width() - lanesLeft() - kMargin);
}

int ClipTimeline::xOf(double seconds) const
{
    const double share = m_span > 0 ? std::clamp(seconds / m_span, 0.0, 1.0) : 0.0;
    return lanesLeft() + static_cast<int>(std::lround(share * lanesWidth()));
}

QRect ClipTimeline::markRect(int issue) const
{
    for (const Mark& mark : m_marks) {
        if (mark.issue != issue) {
            continue;
        }
        const int left = xOf(mark.at);
        const int right = std::max(left + kMinimumMark, xOf(mark.at + mark.length));
        // Taller for worse: Warning 6 px up to Critical 14 px, from the lane's floor.
        const int height = 6 + 2 * static_cast<int>(mark.severity);
        const int floor = kMargin + (mark.lane + 1) * kLaneHeight - 2;
        return {std::min(left, lanesLeft() + lanesWidth() - kMinimumMark), floor - height,
                right - left, height};
    }
    return {};
}

int ClipTimeline::markAt(const QPoint& point) const
{
    // The nearest mark within a few pixels, worst first where marks overlap.
    int best = -1;
    int bestDistance = 5;
    QcSeverity bestSeverity = QcSeverity::Warning;
    for (const Mark& mark : m_marks) {
        const QRect area = markRect(mark.issue).adjusted(-2, -4, 2, 2);
        if (!area.contains(point)) {
            continue;
        }
        const int distance =
            std::abs(point.x() - std::clamp(point.x(), area.left() + 2, area.right() - 2));
        if (distance < bestDistance || (distance == bestDistance && mark.severity > bestSeverity)) {
            best = mark.issue;
            bestDistance = distance;
            bestSeverity = mark.severity;
        }
    }
    return best;
}

QSize ClipTimeline::sizeHint() const
{
    return {400, minimumSizeHint().height()};
}

QSize ClipTimeline::minimumSizeHint() const
{
    const int lanes = std::max<int>(1, static_cast<int>(m_lanes.size()));
    return {kLabelWidth + 80, 2 * kMargin + lanes * kLaneHeight};
}

void ClipTimeline::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    if (m_lanes.empty()) {
        painter.setPen(palette().color(QPalette::PlaceholderText));
        painter.drawText(rect().adjusted(kMargin, 0, 0, 0), Qt::AlignVCenter | Qt::AlignLeft,
                         QStringLiteral("The timeline of the selected clip, once checked"));
        return;
    }
    for (std::size_t i = 0; i < m_lanes.size(); ++i) {
        const Lane& lane = m_lanes[i];
        const int top = kMargin + static_cast<int>(i) * kLaneHeight;
        painter.setPen(palette().color(QPalette::Text));
        painter.drawText(QRect(kMargin, top, kLabelWidth - 4, kLaneHeight - 2),
                         Qt::AlignVCenter | Qt::AlignLeft, lane.label);
        const int left = xOf(lane.from);
        const QRect strip(left, top + 1, std::max(1, xOf(lane.to) - left), kLaneHeight - 3);
        painter.fillRect(strip, palette().color(QPalette::AlternateBase));
        painter.setPen(palette().color(QPalette::Mid));
        painter.drawRect(strip.adjusted(0, 0, -1, -1));
    }
    // The selected mark last, so it stays on top of its neighbours.
    std::vector<const Mark*> order;
    for (const Mark& mark : m_marks) {
        order.push_back(&mark);
    }
    std::stable_partition(order.begin(), order.end(),
                          [&](const Mark* mark) { return mark->issue != m_selected; });
    for (const Mark* mark : order) {
        const QRect area = markRect(mark->issue);
        painter.fillRect(area, severityColour(mark->severity));
        if (mark->issue == m_selected) {
            painter.setPen(QPen(palette().color(QPalette::Highlight), 2));
            painter.drawRect(area.adjusted(-1, -1, 0, 0));
            painter.drawLine(area.left(), kMargin, area.left(), height() - kMargin);
        }
    }
}

void ClipTimeline::mousePressEvent(QMouseEvent* event)
{
    const int issue = markAt(event->position().toPoint());
    if (issue >= 0 && event->button() == Qt::LeftButton) {
        selectIssue(issue);
        emit issueClicked(issue);
        return;
    }
    QWidget::mousePressEvent(event);
}

bool ClipTimeline::event(QEvent* event)
{
    if (event->type() == QEvent::ToolTip) {
        const auto* help = static_cast<QHelpEvent*>(event);
        const int issue = markAt(help->pos());
        const auto mark = std::find_if(m_marks.begin(), m_marks.end(),
                                       [&](const Mark& m) { return m.issue == issue; });
        if (mark != m_marks.end()) {
            QToolTip::showText(help->globalPos(), mark->line, this);
        } else {
            QToolTip::hideText();
            event->ignore();
        }
        return true;
    }
    return QWidget::event(event);
}

} // namespace tarvoqc
