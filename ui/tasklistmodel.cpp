#include "ui/tasklistmodel.h"

#include <QApplication>
#include <QColor>
#include <QFile>
#include <QFont>
#include <QStyle>
#include <algorithm>

#include "batch/runcontroller.h"
#include "ui/controlkit.h"

namespace tarvoqc {

TaskListModel::TaskListModel(TaskList& list, QObject* parent)
    : QAbstractTableModel(parent), m_list(list)
{
    m_list.setObserver(this);
}

TaskListModel::~TaskListModel()
{
    m_list.setObserver(nullptr);
}

int TaskListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_list.size());
}

int TaskListModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant TaskListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount()) {
        return {};
    }
    const TaskItem& item = m_list.item(static_cast<std::size_t>(index.row()));
    const bool checking = m_checkingId && *m_checkingId == item.id();
    if (checking && role == Qt::FontRole) {
        QFont bold;
        bold.setBold(true);
        return bold;
    }
    if (index.column() == PathColumn) {
        if (role == Qt::DisplayRole || role == Qt::ToolTipRole) {
            return QFile::decodeName(item.path().c_str());
        }
        if (role == Qt::DecorationRole && checking) {
            return QApplication::style()->standardIcon(QStyle::SP_MediaPlay);
        }
        return {};
    }
    if (checking) {
        switch (role) {
        case Qt::DisplayRole:
            return m_checkingText;
        case Qt::BackgroundRole:
            return colourFromBgr(kBusyBackColour);
        case Qt::ForegroundRole:
            return colourFromBgr(kBusyTextColour);
        default:
            return {};
        }
    }
    const QcResult* result = item.result();
    if (result == nullptr) {
        return {};
    }
    switch (role) {
    case Qt::DisplayRole: {
        const std::string_view text = scoreText(result->score());
        return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
    }
    case Qt::BackgroundRole:
        return colourFromBgr(scoreColours(result->score()).back);
    case Qt::ForegroundRole:
        return colourFromBgr(scoreColours(result->score()).text);
    default:
        return {};
    }
}

QVariant TaskListModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    return section == PathColumn ? QStringLiteral("Path") : QStringLiteral("Status");
}

void TaskListModel::rowsChanged(const std::vector<std::size_t>& rows)
{
    std::size_t i = 0;
    while (i < rows.size()) {
        std::size_t j = i;
        while (j + 1 < rows.size() && rows[j + 1] == rows[j] + 1) {
            ++j;
        }
        emit dataChanged(index(static_cast<int>(rows[i]), 0),
                         index(static_cast<int>(rows[j]), ColumnCount - 1));
        i = j + 1;
    }
}

void TaskListModel::setChecking(std::optional<std::uint64_t> itemId, const QString& position)
{
    const int before = checkingRow();
    m_checkingId = itemId;
    m_checkingText = position;
    const int after = checkingRow();
    rowChanged(before);
    if (after != before) {
        rowChanged(after);
    }
}

int TaskListModel::checkingRow() const
{
    if (!m_checkingId) {
        return -1;
    }
    const std::size_t row = m_list.indexOfId(*m_checkingId);
    return row == TaskList::npos ? -1 : static_cast<int>(row);
}

void TaskListModel::rowChanged(int row)
{
    if (row >= 0) {
        emit dataChanged(index(row, 0), index(row, ColumnCount - 1));
    }
}

void StatusCellDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                               const QModelIndex& index) const
{
    QStyleOptionViewItem cell = option;
    if (index.data(Qt::BackgroundRole).isValid()) {
        cell.state &= ~QStyle::State_Selected;
    }
    QStyledItemDelegate::paint(painter, cell, index);
}

void TaskListModel::rowsAboutToBeInserted(std::size_t row, std::size_t count)
{
    beginInsertRows(QModelIndex(), static_cast<int>(row), static_cast<int>(row + count - 1));
}

void TaskListModel::rowsInserted()
{
    endInsertRows();
}

void TaskListModel::rowsAboutToBeRemoved(std::size_t row, std::size_t count)
{
    beginRemoveRows(QModelIndex(), static_cast<int>(row), static_cast<int>(row + count - 1));
}

void TaskListModel::rowsRemoved()
{
    endRemoveRows();
}

void TaskListModel::aboutToReset()
{
    beginResetModel();
}

void TaskListModel::reset()
{
    endResetModel();
}

// ---- TaskListProxy ------------------------------------------------------------------------

namespace {

// Unchecked clips sort after every score.
int statusKey(const TaskItem& item)
{
    return item.result() == nullptr ? kBestScore + 1 : item.result()->score();
}

unsigned char foldAscii(char c)
{
    const auto u = static_cast<unsigned char>(c);
    return u >= 'A' && u <= 'Z' ? static_cast<unsigned char>(u - 'A' + 'a') : u;
}

// <0, 0, >0 as a case-blind byte comparison of the paths, then an exact one.
int comparePaths(const std::string& a, const std::string& b)
{
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char x = foldAscii(a[i]);
        const unsigned char y = foldAscii(b[i]);
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    return a.compare(b);
}

} // namespace

TaskListProxy::TaskListProxy(TaskListModel& source, QObject* parent)
    : QSortFilterProxyModel(parent), m_source(source)
{
    setSourceModel(&source);
    setDynamicSortFilter(true);
}

void TaskListProxy::setOrder(GridOrder order, Qt::SortOrder direction)
{
    m_order = order;
    switch (order) {
    case GridOrder::List:
        sort(-1);
        break;
    case GridOrder::Status:
        sort(TaskListModel::StatusColumn, direction);
        break;
    case GridOrder::Path:
        sort(TaskListModel::PathColumn, direction);
        break;
    }
}

void TaskListProxy::setBelowPassingOnly(bool on)
{
    if (on != m_belowPassingOnly) {
        m_belowPassingOnly = on;
        invalidateRowsFilter();
    }
}

int TaskListProxy::listRow(int viewRow) const
{
    if (viewRow < 0 || viewRow >= rowCount()) {
        return -1;
    }
    return mapToSource(index(viewRow, 0)).row();
}

int TaskListProxy::viewRow(int listRow) const
{
    if (listRow < 0 || listRow >= m_source.rowCount()) {
        return -1;
    }
    const QModelIndex shown = mapFromSource(m_source.index(listRow, 0));
    return shown.isValid() ? shown.row() : -1;
}

bool TaskListProxy::lessThan(const QModelIndex& left, const QModelIndex& right) const
{
    const TaskItem& a = list().item(static_cast<std::size_t>(left.row()));
    const TaskItem& b = list().item(static_cast<std::size_t>(right.row()));
    int order = 0;
    if (m_order == GridOrder::Status) {
        order = statusKey(a) - statusKey(b);
    } else if (m_order == GridOrder::Path) {
        order = comparePaths(a.path(), b.path());
    }
    return order != 0 ? order < 0 : left.row() < right.row();
}

bool TaskListProxy::filterAcceptsRow(int sourceRow, const QModelIndex&) const
{
    if (!m_belowPassingOnly) {
        return true;
    }
    const QcResult* result = list().item(static_cast<std::size_t>(sourceRow)).result();
    return result != nullptr && result->score() < kPassingScore;
}

} // namespace tarvoqc
