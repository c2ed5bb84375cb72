#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include <sys/types.h>

namespace tarvoqc {

// Thread priority levels, in the platform-neutral numbers the callers use.
inline constexpr int kThreadPriorityIdle = -15;  // SCHED_IDLE, else nice 19
inline constexpr int kThreadPriorityLowest = -2; // nice 10
inline constexpr int kThreadPriorityBelowNormal = -1;
inline constexpr int kThreadPriorityNormal = 0;

// Sets the calling thread's priority (kThreadPriority...); threads it starts later inherit
// it. False when refused.
bool setCallingThreadPriority(int level);

// Exit codes set by the thread's entry rather than by Run.
inline constexpr int kExitCodeAborted = 0;    // ended by the forced abort
inline constexpr int kExitCodeException = -1; // a C++ exception escaped Run

// One worker thread per object: Start runs Run() on a new thread at idle priority, Stop
// asks it to end and, when it does not, ends it by force.
//
// Stopping, in order:
//  1. The stop flag is set to 1. Run's code polls it (stopFlag()) and returns soon.
//  2. Up to 10 waits of 200 ms, left as soon as the thread has ended: at most 2 s.
//  3. Forced abort: ForceAbort() is called once. A subclass makes Run return at once from
//     there without finishing its work (CheckRunner kills the process that does the check,
//     so no code is ever left in the middle of a library call holding its locks). The
//     thread's exit code is then kExitCodeAborted, whatever Run returns.
//  4. The thread is joined.
// Run's code must therefore return soon after the stop flag or, at the latest, after
// ForceAbort; a subclass without a ForceAbort of its own must honour the flag.
//
// Subclasses must call Stop() in their own destructor, before their members go away: the
// base destructor's runs too late for a Run that uses them.
//
// Thread-safety: Start, Stop, SetPriority and the destructor are called by the owning
// thread only, never by the worker itself. IsRunning, ExitCode, WasAborted, HasExited and
// threadId may be called from any thread.
class WorkerThread
{
public:
    WorkerThread() = default;
    virtual ~WorkerThread(); // calls Stop()
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    // Clears the stop flag and runs Run() on a new thread at the start priority (idle unless
    // setStartPriority chose another). False when the thread cannot be created or a thread
    // of this object is still running. A thread that has ended is joined first, so an
    // object can be started again.
    virtual bool Start();

    // Sets the stop flag only, so that an owner of several workers can let them all wind
    // down at once before it stops each.
    void RequestStop() { m_stopFlag.exchange(1); }

    // Ends the thread in the stages above and joins it. Does nothing without a thread.
    virtual void Stop();

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

    // True when the last thread was ended by the forced abort.
    bool WasAborted() const { return m_aborted.load(std::memory_order_acquire); }

    // The kernel id of the running thread, 0 when none.
    pid_t threadId() const { return m_tid.load(std::memory_order_acquire); }

    // The durations of the graceful wait; the defaults are those described above.
    struct StopTimings
    {
        int gracefulWaits = 10;
        std::chrono::milliseconds gracefulWait{200};
    };

protected:
    // The thread's body; its result is the exit code. Poll *stopFlag() and return soon
    // after it becomes non-zero.
    virtual int Run() = 0;

    // The forced abort (stage 3), called on the owning thread while Run still runs. The
    // default does nothing.
    virtual void ForceAbort() {}

    // Non-zero once Stop has begun. The address stays valid for the object's life, so it
    // may be handed to the code that runs on the thread.
    const std::atomic<std::int32_t>* stopFlag() const { return &m_stopFlag; }

    // For tests and special owners: a shorter or longer graceful wait. Owning thread only,
    // not while Stop runs.
    void setStopTimings(const StopTimings& timings) { m_timings = timings; }
    // The priority the next Start gives the thread: idle unless an owner that runs in the
    // foreground asks for another. Owning thread only.
    void setStartPriority(int level) { m_startPriority = level; }

private:
    void entry();
    int runCatching();
    bool waitEnded(std::chrono::milliseconds timeout);

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
};

} // namespace tarvoqc
