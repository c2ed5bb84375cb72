#pragma once

#include <QAbstractTableModel>
#include <QStyledItemDelegate>
#include <cstdint>
#include <vector>

#include "batch/tasklist.h"
#include "results/scorecolours.h"

namespace tarvoqc {

// The task grid's view of the TaskList: column 0 "Path", column 1 "Status" (the score text
// on the score's colours; empty until the item has a result). It reads the list in place,
// row i being item i, and follows its changes as its observer; nothing is copied, so a
// list of 50000 items costs the grid nothing beyond the rows on screen.
//
// Thread-safety: the window thread, like the list.
class TaskListModel : public QAbstractTableModel, private TaskListObserver
{
    Q_OBJECT

public:
    enum Column { PathColumn = 0, StatusColumn = 1, ColumnCount = 2 };

    // The list must outlive the model; the model observes it until destroyed.
    explicit TaskListModel(TaskList& list, QObject* parent = nullptr);
    ~TaskListModel() override;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // The items of these rows (sorted) received results: one dataChanged per run of
    // neighbouring rows.
    void rowsChanged(const std::vector<std::size_t>& rows);

private:
    void rowsAboutToBeInserted(std::size_t row, std::size_t count) override;
    void rowsInserted() override;
    void rowsAboutToBeRemoved(std::size_t row, std::size_t count) override;
    void rowsRemoved() override;
    void aboutToReset() override;
    void reset() override;

    TaskList& m_list;
};

// Draws a status cell that has a score on its score colours also in the selected row; the
// selection shows on the other cells.
class StatusCellDelegate : public QStyledItemDelegate
{
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
};

} // namespace tarvoqc
