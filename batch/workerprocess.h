#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include "batch/checkprotocol.h"
#include "batch/workerthread.h"
#include "results/checkdefaults.h"

namespace tarvoqc {

// The program's side of the check worker processes (batch/checkworker.h): every check of a
// clip runs in a worker process, never in the address space of the program that asked for
// it. Workers are long lived (one clip after another), shared through a pool, and replaced
// when one dies.

// How the workers of a check run.
struct WorkerLimits
{
    // The worker process's priority (kThreadPriority...): idle for the window and the watch
    // job, normal for the command line.
    int priority = kThreadPriorityIdle;
    // Most memory a worker may use for data, in bytes; 0 for no limit.
    std::uint64_t memoryLimitBytes = std::uint64_t{kDefaultWorkerMemoryMiB} << 20;
    // A check whose activity (reads and packets) stands still this long, not counting time
    // the worker spent waiting for a processor, is ended as hung; zero: never.
    std::chrono::milliseconds hangTimeout = std::chrono::seconds(kDefaultHangTimeoutSeconds);

    bool operator==(const WorkerLimits&) const = default;
};

// The worker program: $TARVOQC_WORKER when set, else "tarvoqc-worker" beside the running
// program, else in ../libexec/tarvoqc/ from it (an installed program); empty when none of
// these is an executable file.
std::string workerExecutable();
inline constexpr const char* kWorkerVariable = "TARVOQC_WORKER";

class WorkerProcess;

// How a check in a worker ended.
enum class CheckEnd {
    Done,       // the worker sent its result
    Aborted,    // abort() ended it; the result is what was known before
    Failed,     // the worker died, hung or broke the protocol: the result says so
    NotStarted, // no worker could be had for it (or no thread): the result says so
};

struct CheckOutcome
{
    CheckEnd end = CheckEnd::Failed;
    // ClipChecker::Run's return for a Done check (1 ran, -9 write-locked); 0 when Run did
    // not run or the check failed.
    std::int32_t runCode = 0;
    QcResult result;
};

// One clip's check in a worker process.
//
// A check that fails gets the issue that says why as a clip issue of category "File" and
// severity "Critical" (so it scores "0/5 ERROR"), after what the worker had reported by
// then (the facts and issues of the open): "Check process crashed: signal 11 (SIGSEGV,
// Segmentation fault)", "Check process was killed: signal 9 (SIGKILL, Killed)", "Check
// process ran out of memory (limit 4096 MiB)", "Check process hung: no activity for 120
// s", "Check process ended unexpectedly (exit status 3)", "Check process sent a broken
// reply", "Check process could not be started: <reason>".
//
// Thread-safety: run() is called once, by one thread. abort(), progress() and snapshot()
// may be called from any thread at any time.
class IsolatedCheck
{
public:
    IsolatedCheck(CheckRequest request, WorkerLimits limits);
    // Must not be destroyed while run() runs.
    ~IsolatedCheck();
    IsolatedCheck(const IsolatedCheck&) = delete;
    IsolatedCheck& operator=(const IsolatedCheck&) = delete;

    // Runs the check and returns when it has ended. A non-zero *stop (may be null) is
    // passed on to the worker, which ends the check at its next packet as a check in the
    // program's own process would. The worker goes back to the pool when its check ended
    // normally.
    CheckOutcome run(const std::atomic<std::int32_t>* stop);

    // The forced abort: kills the worker (SIGKILL) and makes run() return within a few
    // milliseconds, with CheckEnd::Aborted. Works before, during and after run().
    void abort();

    // Records that the check could not even be begun (no thread for it), as a failed
    // check with that issue; for an owner that will not call run().
    CheckOutcome refuse(const std::string& why);

    // The worker's progress counter (0..kProgressMax).
    std::int32_t progress() const { return m_progress.load(std::memory_order_relaxed); }
    // What is known of the clip: the request alone before the open, the facts and issues of
    // the open while the check runs, the final result once run() returned.
    QcResult snapshot() const;

    const CheckRequest& request() const { return m_request; }
    // The process checking the clip now; 0 before and after.
    pid_t workerPid() const;

private:
    CheckOutcome fail(std::unique_ptr<WorkerProcess> worker, const std::string& why,
                      CheckEnd end = CheckEnd::Failed);
    CheckOutcome relay(WorkerProcess& worker, const std::atomic<std::int32_t>* stop,
                       std::unique_ptr<WorkerProcess>& owned);

    const CheckRequest m_request;
    const WorkerLimits m_limits;
    std::atomic<std::int32_t> m_progress{0};
    std::atomic<bool> m_abort{false};

    mutable std::mutex m_lock; // guards the two members below
    QcResult m_snapshot;
    pid_t m_workerPid = 0; // the worker in use, for abort(); 0 when none
};

// Counts of the pool's life, for tests and benchmarks.
struct WorkerPoolStats
{
    std::uint64_t started = 0;   // worker processes started
    std::uint64_t reused = 0;    // checks given to a worker that had checked before
    std::uint64_t discarded = 0; // workers ended because they failed or were aborted
    std::size_t idle = 0;        // workers waiting for a check now
};

WorkerPoolStats workerPoolStats();

// Ends every idle worker now (they would end with the program anyway) and waits up to 10 s
// for them to go. Returns how many did not end cleanly (exit status 0) by then: a worker
// built with a leak checker reports a leak that way. For tests, and for programs that want
// the memory back at once.
std::size_t closeIdleWorkers();

} // namespace tarvoqc
