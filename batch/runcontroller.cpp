#include "batch/runcontroller.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

namespace tarvoqc {

RunController::RunController(TaskList& list, RunControllerOptions options)
    : m_list(list), m_options(std::move(options))
{}

RunController::~RunController()
{
    stopRunners();
}

void RunController::stopRunners()
{
    for (const auto& runner : m_runners) {
        runner->RequestStop();
    }
    // The flags first, so that every check winds down at once and the graceful waits run
    // side by side.
    m_runners.clear();
}

bool RunController::CheckAll()
{
    if (m_state != RunState::Idle || m_list.empty()) {
        return false;
    }
    m_state = RunState::All;
    m_cursor = 0;
    m_cursorRevision = m_list.revision();
    return true;
}

bool RunController::CheckSelected(std::int64_t row)
{
    if (row < 0 || static_cast<std::size_t>(row) >= m_list.size() || m_state != RunState::Idle) {
        return false;
    }
    stopRunners();
    startRunner(m_list.item(static_cast<std::size_t>(row)));
    m_state = RunState::Single;
    return true;
}

void RunController::startRunner(TaskItem& item)
{
    const WorkerLimits worker{m_options.priority, m_options.memoryLimitBytes,
                              m_options.hangTimeout};
    auto runner = std::make_unique<CheckRunner>(
        item, m_options.level, m_options.decoderThreadOption, worker, m_options.check);
    runner->setEndSignal(m_endSignal);
    runner->setProfile(m_options.profile);
    runner->StartCheck();
    m_runners.push_back(std::move(runner));
}

bool RunController::beingChecked(const TaskItem& item) const
{
    return std::any_of(m_runners.begin(), m_runners.end(),
                       [&](const auto& r) { return r->itemId() == item.id(); });
}

TaskItem* RunController::nextUnchecked()
{
    if (m_cursorRevision != m_list.revision()) {
        m_cursor = 0; // rows were inserted or removed: look again from the top
        m_cursorRevision = m_list.revision();
    }
    for (; m_cursor < m_list.size(); ++m_cursor) {
        TaskItem& item = m_list.item(m_cursor);
        if (!item.finished() && !beingChecked(item)) {
            return &item;
        }
    }
    return nullptr;
}

void RunController::waitForRunnerEnd(std::chrono::milliseconds timeout)
{
    if (m_runners.empty()) {
        return;
    }
    const auto until = std::chrono::steady_clock::now() + timeout;
    m_endSignal->waitFor(timeout, [this] {
        return std::any_of(m_runners.begin(), m_runners.end(),
                           [](const auto& runner) { return runner->checkEnded(); });
    });
    // The thread of an ended check has only its last steps left: wait for them, so that
    // the tick can harvest the runner without joining a live thread.
    const auto gone = [this] {
        return std::any_of(m_runners.begin(), m_runners.end(),
                           [](const auto& runner) { return runner->finished(); });
    };
    while (!gone() && std::chrono::steady_clock::now() < until &&
           std::any_of(m_runners.begin(), m_runners.end(),
                       [](const auto& runner) { return runner->checkEnded(); })) {
        std::this_thread::yield();
    }
}

TickReport RunController::tick()
{
    TickReport report;

    // Progress.
    if (!m_runners.empty()) {
        std::int64_t sum = 0;
        for (const auto& runner : m_runners) {
            sum += runner->progress();
        }
        report.progress =
            static_cast<std::int32_t>(sum / static_cast<std::int64_t>(m_runners.size()));
    }

    // Harvest every runner whose check has ended. An item removed from the list meanwhile
    // ("Clear all") loses its result silently.
    if (m_state != RunState::Idle) {
        for (auto it = m_runners.begin(); it != m_runners.end();) {
            if (!(*it)->finished()) {
                ++it;
                continue;
            }
            const std::size_t row = m_list.indexOfId((*it)->itemId());
            if (row != TaskList::npos) {
                m_list.item(row).setResult(std::make_unique<QcResult>((*it)->result()));
                report.harvestedRows.push_back(row);
            }
            it = m_runners.erase(it);
        }
        std::sort(report.harvestedRows.begin(), report.harvestedRows.end());
    }

    // Next.
    if (m_state == RunState::All) {
        while (m_runners.size() < std::max<std::size_t>(1, m_options.maxRunners)) {
            TaskItem* next = nextUnchecked();
            if (next == nullptr) {
                break;
            }
            startRunner(*next);
        }
        if (m_runners.empty()) {
            m_state = RunState::Idle;
            report.allDone = true;
        }
    } else if (m_state == RunState::Single && m_runners.empty()) {
        m_state = RunState::Idle;
    }

    // Status.
    const int isBusy = busy() ? 1 : 0;
    if (isBusy != m_lastBusy && !(isBusy == 0 && m_lastBusy == -1)) {
        m_lastBusy = isBusy;
        report.status = isBusy != 0 ? kStatusWorking : kStatusFinished;
        report.statusBusy = isBusy != 0;
    }
    return report;
}

} // namespace tarvoqc
