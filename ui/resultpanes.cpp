#include "ui/resultpanes.h"

#include <QFile>
#include <QHeaderView>
#include <QPainter>
#include <QPixmap>
#include <QTreeWidget>
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <unordered_map>

namespace tarvoqc {

namespace {

QString fromUtf8(std::string_view text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Darker towards Critical; the bar count carries the rank without colour.
constexpr std::array<QRgb, kSeverityCount> kSeverityColours = {
    qRgb(0xB8, 0x96, 0x00), // Warning
    qRgb(0xE0, 0x78, 0x00), // Low
    qRgb(0xD8, 0x3A, 0x00), // High
    qRgb(0xB8, 0x00, 0x00), // Highest
    qRgb(0x60, 0x00, 0x20), // Critical
};

QString timeText(ClipTicks ticks)
{
    return ticks == kNoTime ? QStringLiteral("unknown") : fromUtf8(formatMediaTime100ns(ticks));
}

QString sizeText(std::uint64_t bytes)
{
    const double mib = static_cast<double>(bytes) / (1024.0 * 1024.0);
    return QStringLiteral("%1 bytes (%2 MiB)").arg(bytes).arg(mib, 0, 'f', 1);
}

QString rateText(std::int32_t num, std::int32_t den)
{
    if (num <= 0 || den <= 0) {
        return QStringLiteral("rate unknown");
    }
    QString text = QString::number(static_cast<double>(num) / den, 'f', 3);
    while (text.endsWith('0')) {
        text.chop(1);
    }
    if (text.endsWith('.')) {
        text.chop(1);
    }
    return text + QStringLiteral(" fps");
}

QString streamDetails(const StreamFacts& stream)
{
    QStringList parts;
    if (stream.type == StreamType::Video) {
        parts << QStringLiteral("%1 x %2").arg(stream.width).arg(stream.height);
        if (stream.sampleAspectNum > 0 && stream.sampleAspectDen > 0) {
            parts << QStringLiteral("SAR %1:%2")
                         .arg(stream.sampleAspectNum)
                         .arg(stream.sampleAspectDen);
        }
        parts << rateText(stream.frameRateNum, stream.frameRateDen);
    } else if (stream.type == StreamType::Audio) {
        parts << QStringLiteral("%1 ch").arg(stream.channels)
              << QStringLiteral("%1 Hz").arg(stream.sampleRate);
    }
    const std::string language(stream.language.data(),
                               std::find(stream.language.begin(), stream.language.end(), '\0'));
    if (!language.empty()) {
        parts << QStringLiteral("language ") + QString::fromLatin1(language).toHtmlEscaped();
    }
    return parts.join(QStringLiteral(", "));
}

void addRow(QString& html, const QString& label, const QString& value)
{
    html += QStringLiteral("<tr><td style='padding-right:8px;color:#6a6a6a'>") + label +
            QStringLiteral("</td><td>") + value + QStringLiteral("</td></tr>");
}

} // namespace

QColor severityColour(QcSeverity severity)
{
    const auto rank = std::clamp(static_cast<int>(severity), 0, kSeverityCount - 1);
    return QColor(kSeverityColours[static_cast<std::size_t>(rank)]);
}

QIcon severityMark(QcSeverity severity)
{
    const auto rank = static_cast<int>(severity);
    if (rank < 0 || rank >= kSeverityCount) {
        return {};
    }
    constexpr int kBar = 3;
    constexpr int kGap = 1;
    constexpr int kHeight = 14;
    QPixmap mark(kSeverityCount * (kBar + kGap), kHeight);
    mark.fill(Qt::transparent);
    QPainter painter(&mark);
    for (int i = 0; i < kSeverityCount; ++i) {
        const int height = 5 + i * 2;
        const QRect bar(i * (kBar + kGap), kHeight - height, kBar, height);
        if (i <= rank) {
            painter.fillRect(bar, QColor(kSeverityColours[static_cast<std::size_t>(rank)]));
        } else {
            painter.setPen(QColor(0xA0, 0xA0, 0xA0));
            painter.drawRect(bar.adjusted(0, 0, -1, -1));
        }
    }
    return QIcon(mark);
}

void setUpIssueTree(QTreeWidget& tree)
{
    tree.setColumnCount(kIssueColumnCount);
    tree.setHeaderLabels(
        {QStringLiteral("Severity"), QStringLiteral("Stream"), QStringLiteral("Issue")});
    tree.setHeaderHidden(false);
    tree.setTextElideMode(Qt::ElideRight);
    QHeaderView* header = tree.header();
    header->setSectionResizeMode(QHeaderView::Interactive);
    header->setStretchLastSection(true);
    header->setSectionsMovable(false);
    const QFontMetrics metrics = tree.fontMetrics();
    int widest = 0;
    for (int s = 0; s < kSeverityCount; ++s) {
        widest = std::max(
            widest, metrics.horizontalAdvance(fromUtf8(severityText(static_cast<QcSeverity>(s)))));
    }
    // The root's and the group's indentation, the mark, the word and the margins.
    header->resizeSection(kIssueSeverityColumn, 2 * tree.indentation() + 32 + widest + 8);
    header->resizeSection(kIssueStreamColumn,
                          metrics.horizontalAdvance(QStringLiteral("10 Video")) + 16);
}

void showIssues(QTreeWidget& tree, const QcResult* result)
{
    tree.clear();
    if (result == nullptr) {
        return;
    }
    std::unordered_map<const QcIssue*, int> indexOf;
    for (std::size_t i = 0; i < result->issues.size(); ++i) {
        indexOf.emplace(result->issues.all()[i].get(), static_cast<int>(i));
    }
    for (int c = 0; c < kCategoryCount; ++c) {
        const auto category = static_cast<QcIssueCategory>(c);
        const std::vector<const QcIssue*> issues = result->issues.byCategory(category);
        if (issues.empty()) {
            continue;
        }
        auto* group = new QTreeWidgetItem(&tree, {fromUtf8(categoryText(category))});
        group->setFirstColumnSpanned(true);
        QcSeverity worst = QcSeverity::Warning;
        for (const QcIssue* issue : issues) {
            worst = std::max(worst, issue->severity);
            QString stream;
            if (issue->streamIndex >= 0) {
                stream = QStringLiteral("%1 %2")
                             .arg(issue->streamIndex)
                             .arg(fromUtf8(streamKindText(issue->streamKind)));
            }
            auto* row = new QTreeWidgetItem(group, {fromUtf8(severityText(issue->severity)),
                                                    stream.trimmed(), fromUtf8(issue->text)});
            row->setIcon(kIssueSeverityColumn, severityMark(issue->severity));
            row->setData(kIssueSeverityColumn, kIssueIndexRole, indexOf.at(issue));
            const QString line = fromUtf8(QcIssueList::longLine(*issue));
            for (int column = 0; column < kIssueColumnCount; ++column) {
                row->setToolTip(column, line);
            }
        }
        group->setIcon(0, severityMark(worst));
        group->setToolTip(0, QStringLiteral("%1 issues, worst %2")
                                 .arg(issues.size())
                                 .arg(fromUtf8(severityText(worst))));
    }
    tree.expandAll();
}

QString clipFactsHtml(const QcResult& result, const QDateTime& checkedAt)
{
    const MediaFacts& facts = result.facts;
    QString html = QStringLiteral("<table cellspacing='0' cellpadding='1'>");
    addRow(html, QStringLiteral("File"), QFile::decodeName(result.path.c_str()).toHtmlEscaped());
    addRow(html, QStringLiteral("Result"),
           fromUtf8(scoreText(result.score())) + ", " +
               (result.issues.size() == 1 ? QStringLiteral("1 issue")
                                          : QStringLiteral("%1 issues").arg(result.issues.size())));
    QString checked = QStringLiteral("level %1").arg(result.checkLevel);
    if (checkedAt.isValid()) {
        checked += QStringLiteral(", ") + checkedAt.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    }
    addRow(html, QStringLiteral("Checked"), checked);
    if (!result.profile.empty()) {
        addRow(html, QStringLiteral("Profile"), fromUtf8(result.profile).toHtmlEscaped());
    }
    addRow(html, QStringLiteral("Size"), sizeText(facts.fileSize));
    if (result.opened) {
        addRow(html, QStringLiteral("Start"), timeText(facts.clipStart));
        addRow(html, QStringLiteral("Duration"), timeText(facts.clipDuration));
        addRow(html, QStringLiteral("QC duration"), timeText(facts.qcDuration));
    } else {
        addRow(html, QStringLiteral("Media"), QStringLiteral("the clip could not be opened"));
    }
    addRow(html, QStringLiteral("Hash256"),
           facts.hash256.empty() ? QStringLiteral("not made")
                                 : QString::fromLatin1(facts.hash256).toHtmlEscaped());
    char fkey[32] = "not made";
    if (facts.fkey != 0) {
        std::snprintf(fkey, sizeof fkey, "%016" PRIX64, facts.fkey);
    }
    addRow(html, QStringLiteral("FKey"), QString::fromLatin1(fkey));
    for (std::size_t i = 0; i < facts.streams.size(); ++i) {
        const StreamFacts& stream = facts.streams[i];
        QString value = QStringLiteral("<b>%1</b> %2")
                            .arg(fromUtf8(streamTypeText(stream.type)))
                            .arg(QString::fromStdString(stream.codecName).toHtmlEscaped());
        const QString details = streamDetails(stream);
        if (!details.isEmpty()) {
            value += QStringLiteral("<br>") + details;
        }
        value += QStringLiteral("<br>start %1, decoded %2 to %3")
                     .arg(timeText(stream.headerStart), timeText(stream.decodedStart),
                          timeText(stream.decodedEnd));
        addRow(html, QStringLiteral("Stream %1").arg(i), value);
    }
    return html + QStringLiteral("</table>");
}

} // namespace tarvoqc
