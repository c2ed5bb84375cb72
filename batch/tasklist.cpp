#include "batch/tasklist.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <iterator>
#include <set>
#include <utility>

#include <dirent.h>
#include <sys/stat.h>

#include "results/textcase.h"

namespace tarvoqc {

namespace {

constexpr std::array<std::string_view, 19> kClipExtensions = {
    ".ts",  ".avi", ".mpg", ".m2p", ".m2t", ".m2v", ".mov", ".mkv",  ".mxf", ".mp4",
    ".m4v", ".flv", ".f4v", ".swf", ".wmv", ".wav", ".mp3", ".mpeg", ".m2ts"};

// Below this length a name is never a clip. Every extension is ASCII, so a name of at
// least this many bytes that ends with one also has at least this many characters.
constexpr std::size_t kShortestClipName = 4;

std::uint64_t nextItemId()
{
    static std::atomic<std::uint64_t> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed) + 1;
}

bool isFolder(const std::string& path)
{
    struct stat st = {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

struct FolderEntry
{
    std::string name;
    bool folder = false;
};

// Lists a folder completely and closes it before anything is done with the entries, so a
// deep tree never holds more than one folder open. False when it cannot be listed (then
// unreadable, when given, is set) or was listed before.
bool listFolder(const std::string& folder, std::set<std::pair<dev_t, ino_t>>& visited,
                std::vector<FolderEntry>& entries, bool& unreadable)
{
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        unreadable = true;
        return false;
    }
    struct stat self = {};
    if (::fstat(::dirfd(dir), &self) != 0 || !visited.emplace(self.st_dev, self.st_ino).second) {
        ::closedir(dir);
        return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        bool folderEntry = entry->d_type == DT_DIR;
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            // A link counts as what it points to; an entry whose type cannot be learned is
            // taken as a file and so still goes through the clip test.
            struct stat st = {};
            folderEntry =
                ::fstatat(::dirfd(dir), entry->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
        }
        entries.push_back({std::string(name), folderEntry});
    }
    ::closedir(dir);
    return true;
}

} // namespace

std::span<const std::string_view> clipExtensions()
{
    return kClipExtensions;
}

int IsMediaFileName(std::string_view name)
{
    if (name.size() < kShortestClipName) {
        return 0;
    }
    for (std::size_t i = 0; i < kClipExtensions.size(); ++i) {
        if (endsWithIgnoreCase(name, kClipExtensions[i])) {
            return static_cast<int>(i + 1);
        }
    }
    return 0;
}

TaskItem::TaskItem(std::string path) : m_path(std::move(path)), m_id(nextItemId()) {}

std::string TaskLimitWarning::text() const
{
    char buffer[256];
    std::snprintf(buffer, sizeof buffer,
                  "Maximum number of task files reached.\nThe list accepts max of %" PRId64
                  " items.\nThis is trying to add %" PRId64 " items (%" PRId64
                  " over the limit), it will only %" PRId64 ".",
                  limit, kept, over, willAdd);
    return buffer;
}

std::size_t TaskList::indexOfId(std::uint64_t id) const
{
    if (m_rowsStale) {
        m_rowOfId.clear();
        m_rowOfId.reserve(m_items.size());
        for (std::size_t row = 0; row < m_items.size(); ++row) {
            m_rowOfId[m_items[row]->id()] = row;
        }
        m_rowsStale = false;
    }
    const auto it = m_rowOfId.find(id);
    return it == m_rowOfId.end() ? npos : it->second;
}

std::size_t TaskList::firstUnfinished() const
{
    const auto it = std::find_if(m_items.begin(), m_items.end(),
                                 [](const auto& item) { return !item->finished(); });
    return it == m_items.end() ? npos : static_cast<std::size_t>(it - m_items.begin());
}

bool TaskList::contains(std::string_view path) const
{
    // Heterogeneous lookup needs a transparent hash; a temporary key is cheap next to a
    // file dialog or a drop.
    return m_pathCounts.find(std::string(path)) != m_pathCounts.end();
}

AddFilesResult TaskList::AddFiles(std::int64_t position, const std::vector<std::string>& paths)
{
    AddFilesResult outcome;
    std::vector<const std::string*> kept;
    for (const std::string& path : paths) {
        if (IsMediaFileName(path) != 0 && !contains(path)) {
            kept.push_back(&path);
        }
    }
    if (kept.empty()) {
        return outcome;
    }

    const auto existing = static_cast<std::int64_t>(m_items.size());
    const auto keptCount = static_cast<std::int64_t>(kept.size());
    std::int64_t toAdd = keptCount;
    if (existing + keptCount - kTaskListLimit > 0) {
        toAdd = kTaskListLimit - existing;
        outcome.warning =
            TaskLimitWarning{kTaskListLimit, keptCount, existing + keptCount - kTaskListLimit,
                             kTaskListLimit - existing};
    }
    if (toAdd <= 0) {
        return outcome;
    }

    const auto row = static_cast<std::size_t>(std::clamp<std::int64_t>(position, 0, existing));
    std::vector<std::unique_ptr<TaskItem>> block;
    block.reserve(static_cast<std::size_t>(toAdd));
    for (std::int64_t i = 0; i < toAdd; ++i) {
        block.push_back(std::make_unique<TaskItem>(*kept[static_cast<std::size_t>(i)]));
    }
    if (m_observer != nullptr) {
        m_observer->rowsAboutToBeInserted(row, block.size());
    }
    m_items.insert(m_items.begin() + static_cast<std::ptrdiff_t>(row),
                   std::make_move_iterator(block.begin()), std::make_move_iterator(block.end()));
    rowsMoved(row == static_cast<std::size_t>(existing));
    for (std::int64_t i = 0; i < toAdd; ++i) {
        track(*kept[static_cast<std::size_t>(i)]);
    }
    if (m_observer != nullptr) {
        m_observer->rowsInserted();
    }
    outcome.position = row;
    outcome.added = static_cast<std::size_t>(toAdd);
    return outcome;
}

void TaskList::AppendFromCommandLine(const std::string& path)
{
    if (m_observer != nullptr) {
        m_observer->rowsAboutToBeInserted(m_items.size(), 1);
    }
    m_items.push_back(std::make_unique<TaskItem>(path));
    track(path);
    if (!m_rowsStale) {
        m_rowOfId[m_items.back()->id()] = m_items.size() - 1;
    }
    if (m_observer != nullptr) {
        m_observer->rowsInserted();
    }
}

bool TaskList::AppendFromJob(const std::string& path)
{
    if (contains(path)) {
        return false;
    }
    AppendFromCommandLine(path);
    return true;
}

bool TaskList::Remove(std::size_t row)
{
    if (row >= m_items.size()) {
        return false;
    }
    if (m_observer != nullptr) {
        m_observer->rowsAboutToBeRemoved(row, 1);
    }
    untrack(m_items[row]->path());
    m_items.erase(m_items.begin() + static_cast<std::ptrdiff_t>(row));
    rowsMoved(false);
    if (m_observer != nullptr) {
        m_observer->rowsRemoved();
    }
    return true;
}

void TaskList::ClearAll()
{
    if (m_observer != nullptr) {
        m_observer->aboutToReset();
    }
    m_items.clear();
    m_pathCounts.clear();
    rowsMoved(false);
    if (m_observer != nullptr) {
        m_observer->reset();
    }
}

std::size_t TaskList::ClearFinished()
{
    std::size_t runs = 0;
    for (std::size_t row = 0; row < m_items.size(); ++row) {
        runs += m_items[row]->finished() && (row == 0 || !m_items[row - 1]->finished()) ? 1 : 0;
    }
    if (runs > kClearFinishedMostRemovals) {
        if (m_observer != nullptr) {
            m_observer->aboutToReset();
        }
        const std::size_t removed =
            std::erase_if(m_items, [this](const std::unique_ptr<TaskItem>& item) {
                if (!item->finished()) {
                    return false;
                }
                untrack(item->path());
                return true;
            });
        rowsMoved(false);
        if (m_observer != nullptr) {
            m_observer->reset();
        }
        return removed;
    }
    // The last run first, so that the rows before a run keep their numbers while it goes.
    std::size_t removed = 0;
    std::size_t end = m_items.size();
    while (true) {
        while (end > 0 && !m_items[end - 1]->finished()) {
            --end;
        }
        if (end == 0) {
            break;
        }
        std::size_t first = end - 1;
        while (first > 0 && m_items[first - 1]->finished()) {
            --first;
        }
        if (m_observer != nullptr) {
            m_observer->rowsAboutToBeRemoved(first, end - first);
        }
        const auto from = m_items.begin() + static_cast<std::ptrdiff_t>(first);
        const auto to = m_items.begin() + static_cast<std::ptrdiff_t>(end);
        std::for_each(from, to, [this](const auto& item) { untrack(item->path()); });
        m_items.erase(from, to);
        rowsMoved(false);
        if (m_observer != nullptr) {
            m_observer->rowsRemoved();
        }
        removed += end - first;
        end = first;
    }
    return removed;
}

void TaskList::rowsMoved(bool appendedOnly)
{
    if (appendedOnly) {
        // Rows before the end kept their numbers: the new ones join the index when it is
        // next rebuilt, or now when it is current.
        if (!m_rowsStale) {
            for (std::size_t row = m_rowOfId.size(); row < m_items.size(); ++row) {
                m_rowOfId[m_items[row]->id()] = row;
            }
        }
        return;
    }
    ++m_revision;
    m_rowsStale = true;
}

void TaskList::ScanFolder(const std::string& folder, std::vector<std::string>& out,
                          std::vector<std::string>* unreadable) const
{
    if (folder.empty()) {
        return;
    }
    // Depth first in listing order, as a recursive walk would go, but with an explicit
    // stack: a hostile tree cannot exhaust the thread's stack or its file handles.
    struct Level
    {
        std::string prefix; // folder text + "/"
        std::vector<FolderEntry> entries;
        std::size_t next = 0;
    };
    std::set<std::pair<dev_t, ino_t>> visited;
    std::vector<Level> stack;
    const auto enter = [&](const std::string& path) {
        Level level{path + "/", {}, 0};
        bool failed = false;
        if (listFolder(path, visited, level.entries, failed)) {
            stack.push_back(std::move(level));
        } else if (failed && unreadable != nullptr) {
            unreadable->push_back(path);
        }
    };
    enter(folder);
    while (!stack.empty()) {
        Level& level = stack.back();
        if (level.next == level.entries.size()) {
            stack.pop_back();
            continue;
        }
        const FolderEntry& entry = level.entries[level.next++];
        std::string path = level.prefix + entry.name;
        if (entry.folder) {
            enter(path); // may reallocate the stack: level is not used after this
        } else if (IsMediaFileName(path) != 0 && !contains(path)) {
            out.push_back(std::move(path));
        }
    }
}

bool TaskList::CanAccept(const std::vector<std::string>& paths)
{
    return std::any_of(paths.begin(), paths.end(), [](const std::string& path) {
        return IsMediaFileName(path) != 0 || isFolder(path);
    });
}

std::vector<std::string> TaskList::collectDrop(const std::vector<std::string>& paths) const
{
    std::vector<std::string> collected;
    for (const std::string& path : paths) {
        if (isFolder(path)) {
            ScanFolder(path, collected);
        } else if (IsMediaFileName(path) != 0 && !contains(path)) {
            collected.push_back(path);
        }
    }
    return collected;
}

AddFilesResult TaskList::Drop(std::int64_t position, const std::vector<std::string>& paths)
{
    const std::vector<std::string> collected = collectDrop(paths);
    if (collected.empty()) {
        return {};
    }
    return AddFiles(position, collected);
}

void TaskList::track(const std::string& path)
{
    ++m_pathCounts[path];
}

void TaskList::untrack(const std::string& path)
{
    const auto it = m_pathCounts.find(path);
    if (it != m_pathCounts.end() && --it->second == 0) {
        m_pathCounts.erase(it);
    }
}

} // namespace tarvoqc
