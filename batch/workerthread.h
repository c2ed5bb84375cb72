#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include <setjmp.h>
#include <sys/types.h>

namespace tarvoqc {

// Thread priority levels, in the platform-neutral numbers the callers use.
inline constexpr int kThreadPriorityIdle = -15;  // SCHED_IDLE, else nice 19
inline constexpr int kThreadPriorityLowest = -2; // nice 10
inline constexpr int kThreadPriorityBelowNormal = -1;
inline constexpr int kThreadPriorityNormal = 0;

// Exit codes set by the thread's entry rather than by Run.
inline constexpr int kExitCodeAborted = 0;    // left by the forced abort
inline constexpr int kExitCodeException = -1; // a C++ exception escaped Run

// One worker thread per object: Start runs Run() on a new thread at idle priority, Stop
// asks it to end and, when it does not, ends it by force.
//
// Stopping, in order:
//  1. The stop flag is set to 1. Run's code polls it (stopFlag()) and returns soon.
//  2. Up to 10 waits of 200 ms, left as soon as the thread has ended: at most 2 s.
//  3. Forced abort, safe stage: the thread is sent the abort signal every 50 ms for up to
//     1 s. The signal interrupts a blocking system call (the handler is installed without
//     SA_RESTART). When it arrives while the thread is inside an AbortPoint
//     (engine/abortpoint.h), the handler jumps straight back to the thread's entry, which
//     ends the thread with kExitCodeAborted. Anywhere else it only notes the signal and
//     returns, so a thread that is computing or holding a lock runs on untouched and can
//     still leave through the stop flag; re-sending catches a thread that enters a
//     blocking call just after a signal came.
//  4. Last resort, unsafe stage: if the thread has still not ended, the next signal jumps
//     back to the entry wherever the thread is. A lock that the thread held at that moment
//     (its own, the C library's, a media library's) stays locked for ever and any later
//     taker hangs; memory owned by the skipped frames leaks. This is reached only by a
//     thread that spent 3 s ignoring the stop flag outside every abort point (stuck
//     computing inside a library); ending it that way is preferred to never returning.
//  5. The thread is joined; its exit code and WasAborted() can be read.
//  6. Held in the kernel: a thread in an uninterruptible kernel wait (a dead network mount,
//     a hung device) is reached by no signal until that wait ends. Stop signals it for one
//     more second and then returns false without joining, so the caller's wait is bounded
//     by about 4 s in all. The thread is left to the kernel: its abort signal stays
//     pending and jumps it back to its entry the moment the wait ends, before any more of
//     Run's code runs. The object must stay alive until then (HasExited()), because the
//     kernel may still write into buffers it owns; StopAndWait() and the destructor wait
//     for that without a bound.
//
// The abort signal is SIGRTMIN + 3; its handler is installed process-wide at the first
// Start, so nothing else in the process may use that signal.
//
// Contract for Run's code, because a jump skips every frame between the entry and the
// abort point: on those frames no object with a destructor may be live while inside an
// AbortPoint (keep such resources in members of the object, which its owner frees after
// Stop on its own thread), no lock may be held, and no C++ exception may be in flight or
// being handled. Blocking calls outside abort points may fail with EINTR once Stop has
// begun; such code should treat EINTR as a reason to look at the stop flag.
//
// Subclasses must call StopAndWait() in their own destructor, before their members go away:
// the base destructor's runs too late for a Run that uses them, and a bare Stop may return
// while the thread still uses them (stage 6).
//
// Thread-safety: Start, Stop, SetPriority and the destructor are called by the owning
// thread only, never by the worker itself. IsRunning, ExitCode, WasAborted and threadId
// may be called from any thread.
class WorkerThread
{
public:
    WorkerThread() = default;
    virtual ~WorkerThread(); // calls StopAndWait()
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Clears the stop flag and runs Run() on a new thread at idle priority (see
    // setStartPriority). False when the
    // thread cannot be created or a thread of this object is still running. A thread that
    // has ended is joined first, so an object can be started again.
    virtual bool Start();

    // Sets the stop flag only, so that an owner of several workers can let them all wind
    // down at once before it stops each.
    void RequestStop() { m_stopFlag.exchange(1); }

    // Ends the thread in the stages above. True once the thread has been joined (or there
    // is none); false when it is held in the kernel (stage 6) and still runs.
    virtual bool Stop();

    // Stop, and if the thread is held in the kernel, waits for it to come back and end,
    // without a bound. For destructors, whose members the thread may still use.
    void StopAndWait();

    // True from Start until Run has returned (or the thread was aborted).
    bool IsRunning() const;
    // True when the last thread has not only returned but is gone from the system, so a
    // join (Stop, the destructor) returns at once; true before the first Start.
    bool HasExited() const;

    // Sets the thread's priority (kThreadPriority...; Windows-style levels above Normal
    // map to negative nice values and need privileges). The idle level is SCHED_IDLE, or
    // nice 19 where that is refused. Note that an unprivileged process cannot raise a
    // priority again once lowered. False without a running thread or when refused.
    bool SetPriority(int level);

    // Run's result, kExitCodeAborted after a forced abort, kExitCodeException when an
    // exception escaped Run; nothing while the thread runs or before the first Start.
    std::optional<int> ExitCode() const;

    // True when the last thread was ended by the forced abort (stage 3 or 4).
    bool WasAborted() const { return m_aborted.load(std::memory_order_acquire); }

    // The kernel id of the running thread, 0 when none.
    pid_t threadId() const { return m_tid.load(std::memory_order_acquire); }

    // How many abort signals the last thread received (whether they jumped or not).
    int abortSignalsSeen() const { return m_signalsSeen.load(std::memory_order_relaxed); }

    // The durations of the stop stages; the defaults are those described above.
    struct StopTimings
    {
        int gracefulWaits = 10;
        std::chrono::milliseconds gracefulWait{200};
        std::chrono::milliseconds resendInterval{50};
        std::chrono::milliseconds abortPointWindow{1000};
        std::chrono::milliseconds lastResortWindow{1000};
    };

protected:
    // The thread's body; its result is the exit code. Poll *stopFlag() and return soon
    // after it becomes non-zero.
    virtual int Run() = 0;

    // Non-zero once Stop has begun. The address stays valid for the object's life, so it
    // may be handed to the code that runs on the thread.
    const std::atomic<std::int32_t>* stopFlag() const { return &m_stopFlag; }

    // For tests and special owners: shorter or longer stop stages. Owning thread only,
    // not while Stop runs.
    void setStopTimings(const StopTimings& timings) { m_timings = timings; }
    // The priority the next Start gives the thread: idle unless an owner that runs in the
    // foreground (the command-line checker) asks for another. Owning thread only.
    void setStartPriority(int level) { m_startPriority = level; }

private:
    static void onAbortSignal(int signal);

    void entry();
    int runGuarded();
    int runCatching();
    bool waitEnded(std::chrono::milliseconds timeout);
    void signalThread();

    std::thread m_thread;
    std::atomic<std::int32_t> m_stopFlag{0};
    StopTimings m_timings;
    int m_startPriority = kThreadPriorityIdle;

    // Ended and exit code are written by the worker under m_lock, last thing before it
    // returns; SetPriority holds m_lock while it uses the kernel id, so that id cannot
    // be reused meanwhile.
    mutable std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_started = false;
    std::atomic<bool> m_ended{true};
    int m_exitCode = 0;
    bool m_hasExitCode = false;
    std::atomic<bool> m_aborted{false};
    std::atomic<pid_t> m_tid{0};
    std::atomic<pid_t> m_lastTid{0}; // kept after the end, for HasExited

    // Read by the signal handler on the worker: whether a jump target is set, and whether
    // the unsafe stage has begun.
    std::atomic<int> m_jumpArmed{0};
    std::atomic<int> m_jumpAnywhere{0};
    std::atomic<int> m_signalsSeen{0};
    sigjmp_buf m_jump = {};
};

} // namespace tarvoqc
