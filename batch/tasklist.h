#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "results/qcresult.h"

namespace tarvoqc {

// The clip extensions, in the order whose position gives the clip type.
std::span<const std::string_view> clipExtensions();

// The clip test: 0 when the name (or path) does not end, compared without regard to ASCII
// case, with one of the clip extensions; otherwise the clip type, the 1-based position of
// the matched extension in clipExtensions() (".ts" 1 .. ".m2ts" 19). A name shorter than 4
// characters is never a clip. Any byte string is accepted.
int IsMediaFileName(std::string_view name);

// One clip of the list. The path is fixed at creation; the result (which also carries the
// clip's media facts) is none until a check of the item has ended and is replaced as a
// whole by every later check, never patched in place.
//
// Thread-safety: none; the item belongs to the thread that owns its list.
class TaskItem
{
public:
    explicit TaskItem(std::string path);
    virtual ~TaskItem() = default;
    TaskItem(const TaskItem&) = delete;
    TaskItem& operator=(const TaskItem&) = delete;

    const std::string& path() const { return m_path; }

    // A process-wide unique number, never reused. A check that outlives its item (the
    // list was cleared meanwhile) finds it again by this number, not by the item's
    // address, which a newer item may have taken over.
    std::uint64_t id() const { return m_id; }

    // Null until the item has been checked.
    const QcResult* result() const { return m_result.get(); }
    void setResult(std::unique_ptr<QcResult> result) { m_result = std::move(result); }
    bool finished() const { return m_result != nullptr; }

private:
    const std::string m_path;
    const std::uint64_t m_id;
    std::unique_ptr<QcResult> m_result;
};

// Most items that the open dialog and drops may bring the list to.
inline constexpr std::int64_t kTaskListLimit = 50000;

// The numbers of the over-limit warning, in the order of its text.
struct TaskLimitWarning
{
    std::int64_t limit = kTaskListLimit;
    std::int64_t kept = 0;    // paths that passed the clip and duplicate tests
    std::int64_t over = 0;    // existing + kept - limit
    std::int64_t willAdd = 0; // limit - existing; 0 or negative when the list is full

    // "Maximum number of task files reached.\nThe list accepts max of 50000 items. ..."
    std::string text() const;
    static std::string_view caption() { return "Warning"; }

    bool operator==(const TaskLimitWarning&) const = default;
};

// What AddFiles did: `added` items were inserted as one block starting at row `position`
// (meaningful when added > 0); `warning` is set when the limit cut the addition and must
// be shown to the user.
struct AddFilesResult
{
    std::size_t position = 0;
    std::size_t added = 0;
    std::optional<TaskLimitWarning> warning;
};

// Told of every change of a TaskList's rows, before and after it happens, so that a view
// (the window's grid model) can follow the list without copying it. Called on the list's
// own thread, inside the changing call; an observer must not change the list.
class TaskListObserver
{
public:
    virtual ~TaskListObserver() = default;
    // count rows are inserted at row (0 < count).
    virtual void rowsAboutToBeInserted(std::size_t row, std::size_t count) = 0;
    virtual void rowsInserted() = 0;
    // count rows are removed from row on (0 < count).
    virtual void rowsAboutToBeRemoved(std::size_t row, std::size_t count) = 0;
    virtual void rowsRemoved() = 0;
    // The list is about to change as a whole (cleared, or finished items in many places
    // removed).
    virtual void aboutToReset() = 0;
    virtual void reset() = 0;
};

// The ordered list of clips to check; item i is row i of the grid. A plain model: it
// shows nothing, and its callers (window, run controller, command line) present what the
// operations report.
//
// Paths are UTF-8 and compared as whole byte strings (case-sensitive). Positions are row
// numbers: a negative one counts as 0, one past the end appends.
//
// Thread-safety: none. The list and its items are owned and touched by one thread only
// (the window thread); a worker never sees the list.
class TaskList
{
public:
    TaskList() = default;
    virtual ~TaskList() = default;
    TaskList(const TaskList&) = delete;
    TaskList& operator=(const TaskList&) = delete;

    // The observer (not owned; null for none) must outlive the list or be unset first.
    void setObserver(TaskListObserver* observer) { m_observer = observer; }

    std::size_t size() const { return m_items.size(); }
    bool empty() const { return m_items.empty(); }
    // index < size().
    TaskItem& item(std::size_t index) { return *m_items[index]; }
    const TaskItem& item(std::size_t index) const { return *m_items[index]; }

    static constexpr std::size_t npos = static_cast<std::size_t>(-1);
    // Row of the item with this id(), or npos when it has left the list. Constant time
    // from an index that is rebuilt once after rows moved.
    std::size_t indexOfId(std::uint64_t id) const;
    // Changes whenever items are inserted before the end or removed, so that a caller that
    // remembers a row (the run controller's next-item cursor) knows when to look again
    // from the top. Appending does not change it.
    std::uint64_t revision() const { return m_revision; }
    // Row of the first item without a result, or npos.
    std::size_t firstUnfinished() const;
    // True when an item has exactly this path.
    bool contains(std::string_view path) const;

    // The open dialog's and the drop's entry: keeps the paths that pass the clip test and
    // are not already listed (the paths are not compared with each other), cuts them to the
    // limit and inserts them, in order, as one block at position.
    AddFilesResult AddFiles(std::int64_t position, const std::vector<std::string>& paths);

    // A command-line token: appended without any test and not counted against the limit.
    void AppendFromCommandLine(const std::string& path);
    // A job file's clip: appended unless already listed; no clip test, no limit. True when
    // it was appended.
    bool AppendFromJob(const std::string& path);

    // Destroys the item at row with its result; false when row is not a row of the list.
    // A check of the item that is still running finds it gone and its result is dropped,
    // as after ClearAll.
    bool Remove(std::size_t row);
    // Destroys every item with its result.
    void ClearAll();
    // Removes the items that have a result, keeping the order of the rest. Returns how
    // many were removed. The observer is told of each run of neighbouring finished rows as
    // one removal (the last run first), so that a view keeps its selection and its
    // persistent indexes; with more than kClearFinishedMostRemovals runs it is told of one
    // reset instead, as a view pays for each removal about as much as for a reset.
    std::size_t ClearFinished();
    static constexpr std::size_t kClearFinishedMostRemovals = 100;

    // Appends to out the clip files under folder, at every depth, in the order the file
    // system lists them, skipping paths already listed. folder + "/" + name is the text of
    // each entry even when folder ends with "/" (the doubled separator is kept). Folder
    // links are followed, but every folder (by device and inode) is entered at most once
    // per call, so link loops end. Folders that cannot be listed add nothing; when
    // unreadable is given, their paths are appended to it (the window stays silent about
    // them, the command line names them). An empty folder text adds nothing.
    void ScanFolder(const std::string& folder, std::vector<std::string>& out,
                    std::vector<std::string>* unreadable = nullptr) const;

    // Drop decisions. CanAccept: true as soon as one path is an existing folder or passes
    // the clip test. collectDrop: each folder scanned, each other path kept when it passes
    // the clip test and is not listed, in order; empty when nothing qualifies.
    static bool CanAccept(const std::vector<std::string>& paths);
    std::vector<std::string> collectDrop(const std::vector<std::string>& paths) const;
    // collectDrop, then AddFiles at position when something was collected.
    AddFilesResult Drop(std::int64_t position, const std::vector<std::string>& paths);

private:
    void track(const std::string& path);
    void untrack(const std::string& path);
    // Rows were inserted or removed; appendedOnly when only new rows at the end came.
    void rowsMoved(bool appendedOnly);

    std::vector<std::unique_ptr<TaskItem>> m_items;
    TaskListObserver* m_observer = nullptr;
    // How many items hold each path: the duplicate test stays fast at 50000 items, and
    // command-line items may share a path.
    std::unordered_map<std::string, std::size_t> m_pathCounts;
    std::uint64_t m_revision = 0;
    // Row of each item's id; rebuilt on the next lookup after rows moved.
    mutable std::unordered_map<std::uint64_t, std::size_t> m_rowOfId;
    mutable bool m_rowsStale = false;
};

} // namespace tarvoqc
