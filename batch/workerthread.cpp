#include "batch/workerthread.h"

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include <cxxabi.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarvoqc {

namespace {

constexpr int kIdleNice = 19;

// Windows-style levels above idle and the nice values that stand in for them.
constexpr std::array<std::pair<int, int>, 6> kNiceOfLevel = {{
    {kThreadPriorityLowest, 10},
    {kThreadPriorityBelowNormal, 5},
    {kThreadPriorityNormal, 0},
    {1, -5},  // above normal
    {2, -10}, // highest
    {15, -20} // time critical
}};

bool applyPriority(pid_t tid, int level)
{
    sched_param param = {};
    if (level == kThreadPriorityIdle) {
        if (::sched_setscheduler(tid, SCHED_IDLE, &param) == 0) {
            return true;
        }
        return ::setpriority(PRIO_PROCESS, static_cast<id_t>(tid), kIdleNice) == 0;
    }
    for (const auto& [known, nice] : kNiceOfLevel) {
        if (known == level) {
            return ::sched_setscheduler(tid, SCHED_OTHER, &param) == 0 &&
                   ::setpriority(PRIO_PROCESS, static_cast<id_t>(tid), nice) == 0;
        }
    }
    return false;
}

} // namespace

bool setCallingThreadPriority(int level)
{
    return applyPriority(::gettid(), level);
}

WorkerThread::~WorkerThread()
{
    // Not virtual here on purpose: a subclass has already stopped the thread in its own
    // destructor; this one catches a subclass that did not.
    Stop();
}

bool WorkerThread::Start()
{
    if (IsRunning()) {
        return false;
    }
    if (m_thread.joinable()) {
        m_thread.join();
    }
    m_stopFlag.exchange(0);
    {
        std::lock_guard lock(m_lock);
        m_started = false;
        m_hasExitCode = false;
        m_ended.store(false, std::memory_order_release);
    }
    m_aborted.store(false);
    try {
        m_thread = std::thread(&WorkerThread::entry, this);
    } catch (const std::system_error&) {
        std::lock_guard lock(m_lock);
        m_ended.store(true, std::memory_order_release);
        return false;
    }
    // The thread sets its own priority before it publishes its id, so Run never runs above
    // idle and threadId() is valid once Start returns.
    std::unique_lock lock(m_lock);
    m_changed.wait(lock, [this] { return m_started; });
    return true;
}

void WorkerThread::entry()
{
    const pid_t tid = ::gettid();
    applyPriority(tid, m_startPriority);
    {
        std::lock_guard lock(m_lock);
        m_tid.store(tid, std::memory_order_release);
        m_lastTid.store(tid, std::memory_order_release);
        m_started = true;
        m_changed.notify_all();
    }

    // Marks the end also when the thread is unwound by pthread_exit inside Run.
    struct EndMark
    {
        WorkerThread* self;
        int code = kExitCodeException;
        ~EndMark()
        {
            std::lock_guard lock(self->m_lock);
            self->m_exitCode =
                self->m_aborted.load(std::memory_order_acquire) ? kExitCodeAborted : code;
            self->m_hasExitCode = true;
            self->m_tid.store(0, std::memory_order_release);
            self->m_ended.store(true, std::memory_order_release);
            self->m_changed.notify_all();
        }
    } endMark{this};
    endMark.code = runCatching();
}

int WorkerThread::runCatching()
{
    try {
        return Run();
    } catch (const abi::__forced_unwind&) {
        throw; // thread cancellation must unwind to the end
    } catch (...) {
        // The engine keeps its findings as issues; an exception here is a fault of the
        // code on the thread, and ending the thread beats ending the process.
        return kExitCodeException;
    }
}

bool WorkerThread::waitEnded(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_lock);
    return m_changed.wait_for(lock, timeout,
                              [this] { return m_ended.load(std::memory_order_acquire); });
}

void WorkerThread::Stop()
{
    if (!m_thread.joinable()) {
        return;
    }
    m_stopFlag.exchange(1);
    if (std::this_thread::get_id() == m_thread.get_id()) {
        return; // a thread cannot wait for itself; the flag is all it can be given
    }
    bool ended = false;
    for (int i = 0; i < m_timings.gracefulWaits && !ended; ++i) {
        ended = waitEnded(m_timings.gracefulWait);
    }
    if (!ended) {
        // Decided under the lock the thread takes to record its end, so an exit code and
        // WasAborted always agree.
        std::lock_guard lock(m_lock);
        ended = m_ended.load(std::memory_order_acquire);
        m_aborted.store(!ended, std::memory_order_release);
    }
    if (!ended) {
        ForceAbort();
    }
    m_thread.join();
}

bool WorkerThread::IsRunning() const
{
    return !m_ended.load(std::memory_order_acquire);
}

bool WorkerThread::HasExited() const
{
    if (!m_ended.load(std::memory_order_acquire)) {
        return false;
    }
    const pid_t tid = m_lastTid.load(std::memory_order_acquire);
    // Signal 0 only asks whether the thread still exists.
    return tid == 0 || (::syscall(SYS_tgkill, ::getpid(), tid, 0) != 0 && errno == ESRCH);
}

bool WorkerThread::SetPriority(int level)
{
    // Holding the lock keeps the thread from ending, so its id cannot be handed to
    // another thread while it is used here.
    std::lock_guard lock(m_lock);
    const pid_t tid = m_tid.load(std::memory_order_acquire);
    if (m_ended.load(std::memory_order_acquire) || tid == 0) {
        return false;
    }
    return applyPriority(tid, level);
}

std::optional<int> WorkerThread::ExitCode() const
{
    std::lock_guard lock(m_lock);
    if (!m_hasExitCode) {
        return std::nullopt;
    }
    return m_exitCode;
}

} // namespace tarvoqc
