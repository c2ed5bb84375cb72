#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "batch/checkrunner.h"
#include "batch/tasklist.h"
#include "results/checkdefaults.h"

namespace tarvoqc {

// What the controller is doing: nothing, one selected item, or every item without a result.
enum class RunState : std::int32_t { Idle = 0, Single = 1, All = 2 };

// Status cell texts and the busy colours (0x00BBGGRR: text, background).
inline constexpr std::string_view kStatusWorking = "Working...";
inline constexpr std::string_view kStatusFinished = "Finished";
inline constexpr std::uint32_t kBusyTextColour = 0x800000;
inline constexpr std::uint32_t kBusyBackColour = 0xFFA0A0;

struct RunControllerOptions
{
    CheckLevel level = kDefaultCheckLevel;
    int decoderThreadOption = 2; // the window's choice; batch runs pass -1
    std::size_t maxRunners = 1;  // clips checked at once: 1 in the window
    // The check processes' priority: idle in the window, so the desktop never waits for a
    // check; the command line runs in the foreground at the caller's priority.
    int priority = kThreadPriorityIdle;
    // Level 4's limits and the decoder threads of each check.
    ClipCheckOptions check{};
    // The limits of each check's process (batch/workerprocess.h).
    std::uint64_t memoryLimitBytes = WorkerLimits{}.memoryLimitBytes;
    std::chrono::milliseconds hangTimeout = WorkerLimits{}.hangTimeout;
    // The delivery profile every result is graded by (null: none); its loudness rule
    // belongs in check.
    std::shared_ptr<const DeliveryProfile> profile{};
};

// What one tick did, for the window (or the command line) to show.
struct TickReport
{
    // Position for the progress bar (0..kProgressMax) when a runner exists: the runner's
    // progress counter, or with several runners their mean.
    std::optional<std::int32_t> progress;
    // Rows whose item received a result in this tick, in list order after the tick.
    std::vector<std::size_t> harvestedRows;
    // A new text for the status cell, when it changes: "Working..." (busy) or "Finished".
    std::optional<std::string_view> status;
    bool statusBusy = false;
    // "Check all" found no item left: the run returned to Idle.
    bool allDone = false;
};

// The run controller: starts runners for items, polls them every tick, hands each
// finished check's result to its item (found by identity, never by path) and moves on to
// the next item. The window calls tick() from a 100 ms timer; the command line calls it
// in a loop with several runners.
//
// Thread-safety: one owning thread, the same that owns the TaskList, does everything.
// The list is never touched by a runner's thread.
class RunController
{
public:
    RunController(TaskList& list, RunControllerOptions options);
    // Stops the runners (stop flags, up to 2 s, then the forced abort of those still
    // running) and destroys them.
    virtual ~RunController();
    RunController(const RunController&) = delete;
    RunController& operator=(const RunController&) = delete;

    RunState state() const { return m_state; }

    // "Check all": only when Idle and the list is not empty; the next tick starts.
    bool CheckAll();
    // "Check selected": only when Idle and row is a row of the list. Stops any runner,
    // starts one for that item (also when it already has a result) and goes to Single.
    bool CheckSelected(std::int64_t row);

    TickReport tick();

    // For an owner that calls tick() in a loop (the command line): blocks until a runner's
    // check has ended and its thread is gone, or timeout passed, so that the next tick
    // harvests it and starts the next clip at once. Returns at once when no runner exists
    // or one has already ended. The window does not use it; it keeps its timer.
    void waitForRunnerEnd(std::chrono::milliseconds timeout);

    bool busy() const { return !m_runners.empty(); }
    // The runners now checking, oldest first (for per-clip progress).
    const std::vector<std::unique_ptr<CheckRunner>>& runners() const { return m_runners; }

private:
    void startRunner(TaskItem& item);
    bool beingChecked(const TaskItem& item) const;
    TaskItem* nextUnchecked();
    void stopRunners();

    TaskList& m_list;
    const RunControllerOptions m_options;
    RunState m_state = RunState::Idle;
    int m_lastBusy = -1; // what the status cell last showed: -1 nothing yet, 0 or 1
    // Every row before the cursor has a result or is being checked, as long as the list's
    // revision is the one noted: "Check all" then never scans the list from the top again.
    std::size_t m_cursor = 0;
    std::uint64_t m_cursorRevision = 0;
    std::shared_ptr<RunnerEndSignal> m_endSignal = std::make_shared<RunnerEndSignal>();
    std::vector<std::unique_ptr<CheckRunner>> m_runners;
};

} // namespace tarvoqc
