#include "ui/tasklistmodel.h"

#include <QColor>
#include <QFile>

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
    if (index.column() == PathColumn) {
        if (role == Qt::DisplayRole || role == Qt::ToolTipRole) {
            return QFile::decodeName(item.path().c_str());
        }
        return {};
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

} // namespace tarvoqc
