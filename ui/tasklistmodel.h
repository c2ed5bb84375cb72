#pragma once

#include <QAbstractTableModel>
#include <QSortFilterProxyModel>
#include <QStyledItemDelegate>
#include <cstdint>
#include <optional>
#include <vector>

#include "batch/tasklist.h"
#include "results/scorecolours.h"

namespace tarvoqc {

// The score below which a clip counts as failed in the window's filter: the passing score
// the command-line checker and the reports use unless told otherwise ("3/5 Playable").
inline constexpr QcScore kPassingScore = 3;

// The task grid's view of the TaskList: column 0 "Path", column 1 "Status" (the score text
// on the score's colours; empty until the item has a result). It reads the list in place,
// row i being item i, and follows its changes as its observer; nothing is copied, so a
// list of 50000 items costs the grid nothing beyond the rows on screen.
//
// The item being checked is marked: bold, a play mark before its path, and in its status
// cell the position of the run ("3 of 12") on the busy colours.
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

    const TaskList& list() const { return m_list; }

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // The items of these rows (sorted) received results: one dataChanged per run of
    // neighbouring rows.
    void rowsChanged(const std::vector<std::size_t>& rows);

    // Marks the item with this id as the one being checked, with the run position text
    // for its status cell; nullopt: none is.
    void setChecking(std::optional<std::uint64_t> itemId, const QString& position);
    // The list row of the item being checked, or -1.
    int checkingRow() const;

private:
    void rowsAboutToBeInserted(std::size_t row, std::size_t count) override;
    void rowsInserted() override;
    void rowsAboutToBeRemoved(std::size_t row, std::size_t count) override;
    void rowsRemoved() override;
    void aboutToReset() override;
    void reset() override;
    void rowChanged(int row);

    TaskList& m_list;
    std::optional<std::uint64_t> m_checkingId;
    QString m_checkingText;
};

// How the grid orders the list. The list keeps its own order (the run works through it);
// the view only shows it sorted.
enum class GridOrder { List, Status, Path };

// The grid's sorted and filtered view over a TaskListModel. Sorting by status puts the
// worst score first and unchecked clips last; by path, the paths compared without regard to
// ASCII case; equal keys keep their list order. The filter keeps only checked clips below
// kPassingScore. Row numbers of the view are not list rows: map them with listRow/viewRow.
//
// Thread-safety: the window thread.
class TaskListProxy : public QSortFilterProxyModel
{
    Q_OBJECT

public:
    explicit TaskListProxy(TaskListModel& source, QObject* parent = nullptr);

    void setOrder(GridOrder order, Qt::SortOrder direction = Qt::AscendingOrder);
    GridOrder order() const { return m_order; }
    void setBelowPassingOnly(bool on);
    bool belowPassingOnly() const { return m_belowPassingOnly; }

    // The list row shown at view row (-1 when out of range), and the view row of a list row
    // (-1 when filtered out or out of range).
    int listRow(int viewRow) const;
    int viewRow(int listRow) const;

protected:
    bool lessThan(const QModelIndex& left, const QModelIndex& right) const override;
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;

private:
    const TaskList& list() const { return m_source.list(); }

    TaskListModel& m_source;
    GridOrder m_order = GridOrder::List;
    bool m_belowPassingOnly = false;
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
