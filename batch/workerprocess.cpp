#include "batch/workerprocess.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "batch/checkworker.h"
#include "engine/clipchecker.h"
#include "settings/profilestore.h"

extern char** environ;

namespace tarvoqc {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kWorkerFd = 3;
constexpr auto kPollPeriod = 50ms;
constexpr auto kStartTimeout = 10s;
// How long a worker that closed its socket may take to be gone before it is killed.
constexpr auto kExitWait = 2s;
constexpr std::size_t kMaxIdleWorkers = 64;
constexpr std::uint64_t kMiB = 1024 * 1024;

std::string signalText(int signal)
{
    const char* name = ::sigabbrev_np(signal);
    const char* description = ::sigdescr_np(signal);
    std::string text = "signal " + std::to_string(signal);
    if (name != nullptr) {
        text.append(" (SIG").append(name);
        if (description != nullptr) {
            text.append(", ").append(description);
        }
        text.append(")");
    }
    return text;
}

bool isCrashSignal(int signal)
{
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGILL || signal == SIGFPE ||
           signal == SIGABRT || signal == SIGTRAP || signal == SIGSYS;
}

// What a worker's end says, as the clip's issue.
std::string endText(int status, std::uint64_t memoryLimitBytes)
{
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        return std::string(isCrashSignal(signal) ? "Check process crashed: "
                                                 : "Check process was killed: ") +
               signalText(signal);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == kWorkerExitOutOfMemory) {
        return "Check process ran out of memory (limit " + std::to_string(memoryLimitBytes / kMiB) +
               " MiB)";
    }
    if (WIFEXITED(status)) {
        return "Check process ended unexpectedly (exit status " +
               std::to_string(WEXITSTATUS(status)) + ")";
    }
    return "Check process ended unexpectedly";
}

bool executable(const std::string& path)
{
    std::error_code ec;
    return !path.empty() && std::filesystem::is_regular_file(path, ec) &&
           ::access(path.c_str(), X_OK) == 0;
}

// Time a worker's threads spent waiting for a processor, in ns, from the kernel's
// scheduler statistics; nothing where the kernel keeps none.
std::optional<std::uint64_t> waitedForProcessor(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid) + "/task";
    DIR* tasks = ::opendir(folder.c_str());
    if (tasks == nullptr) {
        return std::nullopt;
    }
    std::uint64_t total = 0;
    bool any = false;
    while (const dirent* entry = ::readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string path = folder + "/" + entry->d_name + "/schedstat";
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        char text[128] = {};
        const ssize_t n = ::read(fd, text, sizeof text - 1);
        ::close(fd);
        unsigned long long onCpu = 0;
        unsigned long long waited = 0;
        if (n > 0 && std::sscanf(text, "%llu %llu", &onCpu, &waited) == 2) {
            total += waited;
            any = true;
        }
    }
    ::closedir(tasks);
    return any ? std::optional(total) : std::nullopt;
}

// Counts how long a worker has shown no activity, leaving out the time its threads waited
// for a processor: an idle-priority check on a busy machine may get no time at all for
// minutes, and that is no hang.
class StallClock
{
public:
    explicit StallClock(pid_t pid) : m_pid(pid) { restart(); }

    // Cheap: the scheduler's figures are read only once a stall has lasted a second, so
    // that a check that moves along (most of them, and every short one) costs nothing here.
    void restart()
    {
        m_stalled = Clock::duration::zero();
        m_last = Clock::now();
        m_waitedKnown = false;
    }

    // Brought up to date at most once a second; returns the stall so far.
    Clock::duration stalled()
    {
        const auto now = Clock::now();
        if (now - m_last < 1s) {
            return m_stalled;
        }
        const std::optional<std::uint64_t> waited = waitedForProcessor(m_pid);
        // Without the figure of the last look, the processor wait of this stretch is not
        // known: it counts as none.
        const std::uint64_t before = m_waitedKnown ? m_waited : waited.value_or(0);
        const std::uint64_t after = waited.value_or(before);
        const auto waitedNow = std::chrono::nanoseconds(after >= before ? after - before : 0);
        m_stalled += std::max(Clock::duration::zero(), (now - m_last) - waitedNow);
        m_last = now;
        m_waited = after;
        m_waitedKnown = true;
        return m_stalled;
    }

private:
    const pid_t m_pid;
    Clock::duration m_stalled{};
    Clock::time_point m_last;
    std::uint64_t m_waited = 0;
    bool m_waitedKnown = false;
};

} // namespace

// One worker process and the program's end of its socket.
class WorkerProcess
{
public:
    WorkerProcess(pid_t pid, int fd, WorkerLimits limits) : m_pid(pid), m_fd(fd), m_limits(limits)
    {}
    ~WorkerProcess() { ::close(m_fd); }
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    pid_t pid() const { return m_pid; }
    int fd() const { return m_fd; }
    const WorkerLimits& limits() const { return m_limits; }
    FrameReader& reader() { return m_reader; }
    bool checkedBefore = false;

    // The whole frame or nothing; never blocks (the worker always reads, and the frames
    // the program sends are a few bytes).
    bool send(const std::string& frame) { return sendFrame(m_fd, frame, false); }

    // Reads what has arrived into the frame reader; false at the end of the stream.
    bool receive()
    {
        char buffer[64 * 1024];
        for (;;) {
            const ssize_t n = ::recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n > 0) {
                m_reader.append(buffer, static_cast<std::size_t>(n));
                if (static_cast<std::size_t>(n) < sizeof buffer) {
                    return true;
                }
                continue;
            }
            if (n < 0 && (errno == EINTR)) {
                continue;
            }
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
    }

    // An idle worker has nothing to say: anything readable on its socket means it ended.
    bool idleAndAlive() const
    {
        pollfd entry = {m_fd, POLLIN, 0};
        return ::poll(&entry, 1, 0) == 0;
    }

private:
    const pid_t m_pid;
    const int m_fd;
    const WorkerLimits m_limits;
    FrameReader m_reader;
};

namespace {

// The workers of the program. A leaked singleton: runner threads may still use it while
// the program exits, and the workers end on their own when their sockets close with it.
class WorkerPool
{
public:
    static WorkerPool& shared()
    {
        static auto* pool = new WorkerPool();
        return *pool;
    }

    // An idle worker under those limits, or a new one (waiting for its Ready, abortable).
    std::unique_ptr<WorkerProcess> take(const WorkerLimits& limits, const std::atomic<bool>& abort,
                                        std::string& error)
    {
        {
            const std::lock_guard lock(m_lock);
            reapSome();
            for (auto it = m_idle.begin(); it != m_idle.end();) {
                // The hang timeout is the program's own watch; the process does not know it.
                if ((*it)->limits().priority != limits.priority ||
                    (*it)->limits().memoryLimitBytes != limits.memoryLimitBytes) {
                    ++it;
                    continue;
                }
                std::unique_ptr<WorkerProcess> worker = std::move(*it);
                it = m_idle.erase(it);
                if (worker->idleAndAlive()) {
                    ++m_stats.reused;
                    return worker;
                }
                endLocked(std::move(worker));
            }
        }
        return start(limits, abort, error);
    }

    // A worker whose check ended normally: kept for the next check.
    void give(std::unique_ptr<WorkerProcess> worker)
    {
        worker->checkedBefore = true;
        const std::lock_guard lock(m_lock);
        if (m_idle.size() < kMaxIdleWorkers) {
            m_idle.push_back(std::move(worker));
        }
    }

    // A worker that failed or was aborted: killed and reaped.
    void discard(std::unique_ptr<WorkerProcess> worker)
    {
        const std::lock_guard lock(m_lock);
        ++m_stats.discarded;
        ::kill(worker->pid(), SIGKILL);
        endLocked(std::move(worker));
    }

    // The status of a worker whose socket reached its end: waits up to kExitWait for it to
    // go, then kills it.
    int reap(std::unique_ptr<WorkerProcess> worker)
    {
        const pid_t pid = worker->pid();
        const auto deadline = Clock::now() + kExitWait;
        int status = 0;
        while (::waitpid(pid, &status, WNOHANG) == 0) {
            if (Clock::now() >= deadline) {
                ::kill(pid, SIGKILL);
                const std::lock_guard lock(m_lock);
                ++m_stats.discarded;
                endLocked(std::move(worker));
                return -1;
            }
            std::this_thread::sleep_for(1ms);
        }
        const std::lock_guard lock(m_lock);
        ++m_stats.discarded;
        return status;
    }

    std::size_t closeIdle()
    {
        std::vector<std::unique_ptr<WorkerProcess>> idle;
        {
            const std::lock_guard lock(m_lock);
            idle.swap(m_idle);
        }
        std::size_t unclean = 0;
        const auto deadline = Clock::now() + 10s;
        for (auto& worker : idle) {
            const pid_t pid = worker->pid();
            worker.reset(); // the end of its socket ends an idle worker
            int status = 0;
            pid_t reaped = 0;
            while ((reaped = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
                std::this_thread::sleep_for(1ms);
            }
            if (reaped != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                ++unclean;
                if (reaped == 0) {
                    const std::lock_guard lock(m_lock);
                    m_unreaped.push_back(pid);
                }
            }
        }
        return unclean;
    }

    WorkerPoolStats stats()
    {
        const std::lock_guard lock(m_lock);
        WorkerPoolStats stats = m_stats;
        stats.idle = m_idle.size();
        return stats;
    }

private:
    std::unique_ptr<WorkerProcess> start(const WorkerLimits& limits, const std::atomic<bool>& abort,
                                         std::string& error)
    {
        const std::string program = workerExecutable();
        if (program.empty()) {
            error = "the program tarvoqc-worker was not found";
            return nullptr;
        }
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            error = std::strerror(errno);
            return nullptr;
        }
        // The worker's end must not already be fd 3: dup2 onto itself would keep the
        // close-on-exec flag.
        if (fds[1] == kWorkerFd) {
            const int moved = ::fcntl(fds[1], F_DUPFD_CLOEXEC, kWorkerFd + 1);
            ::close(fds[1]);
            fds[1] = moved;
        }
        const std::string memory = std::to_string(limits.memoryLimitBytes);
        const std::string priority = std::to_string(limits.priority);
        const std::string fd = std::to_string(kWorkerFd);
        const std::string parent = std::to_string(::getpid());
        const char* argv[] = {program.c_str(),  "--fd",     fd.c_str(),     "--parent",
                              parent.c_str(),   "--memory", memory.c_str(), "--priority",
                              priority.c_str(), nullptr};

        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        // Nothing of a worker may mix with the program's own output (JSON lines, say).
        ::posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, fds[1], kWorkerFd);
        ::posix_spawn_file_actions_addclosefrom_np(&actions, kWorkerFd + 1);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setsigdefault(&attributes, &all);
        // A session of its own: Ctrl-C at the terminal is meant for the program, which then
        // stops its checks in order; the workers must not die of it first.
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                    POSIX_SPAWN_SETSID);
        pid_t pid = 0;
        const int rc = ::posix_spawn(&pid, program.c_str(), &actions, &attributes,
                                     const_cast<char* const*>(argv), environ);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (rc != 0) {
            ::close(fds[0]);
            error = program + ": " + std::strerror(rc);
            return nullptr;
        }
        auto worker = std::make_unique<WorkerProcess>(pid, fds[0], limits);
        {
            const std::lock_guard lock(m_lock);
            ++m_stats.started;
        }

        // The Ready frame tells that the program really is a worker of this version.
        const auto deadline = Clock::now() + kStartTimeout;
        while (!abort.load() && Clock::now() < deadline) {
            pollfd entry = {worker->fd(), POLLIN, 0};
            if (::poll(&entry, 1, static_cast<int>(kPollPeriod.count())) <= 0) {
                continue;
            }
            if (!worker->receive()) {
                break;
            }
            if (const auto frame = worker->reader().next()) {
                const auto ready =
                    frame->type == FrameType::Ready ? decodeReady(frame->payload) : std::nullopt;
                if (ready && ready->protocolVersion == kCheckProtocolVersion) {
                    return worker;
                }
                error = program + " is not a worker of this version";
                discard(std::move(worker));
                return nullptr;
            }
        }
        error = abort.load() ? "stopped" : program + " did not start";
        discard(std::move(worker));
        return nullptr;
    }

    // Closes a worker's socket (an idle worker then ends on its own) and reaps it now or
    // later. Called with m_lock held.
    void endLocked(std::unique_ptr<WorkerProcess> worker)
    {
        const pid_t pid = worker->pid();
        worker.reset();
        if (::waitpid(pid, nullptr, WNOHANG) == 0) {
            m_unreaped.push_back(pid);
        }
    }

    // Workers that were still on their way out when they were ended. Called with m_lock held.
    void reapSome()
    {
        std::erase_if(m_unreaped, [](pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != 0; });
    }

    std::mutex m_lock;
    std::vector<std::unique_ptr<WorkerProcess>> m_idle;
    std::vector<pid_t> m_unreaped;
    WorkerPoolStats m_stats;
};

} // namespace

std::string workerExecutable()
{
    if (const char* chosen = std::getenv(kWorkerVariable); chosen != nullptr && *chosen != '\0') {
        return executable(chosen) ? std::string(chosen) : std::string();
    }
    const std::string folder = programFolder();
    if (folder.empty()) {
        return {};
    }
    for (const std::string& candidate :
         {folder + "tarvoqc-worker", folder + "../libexec/tarvoqc/tarvoqc-worker"}) {
        if (executable(candidate)) {
            return candidate;
        }
    }
    return {};
}

IsolatedCheck::IsolatedCheck(CheckRequest request, WorkerLimits limits)
    : m_request(std::move(request)), m_limits(limits)
{
    m_snapshot.path = m_request.path;
    m_snapshot.checkLevel = m_request.level;
}

IsolatedCheck::~IsolatedCheck() = default;

QcResult IsolatedCheck::snapshot() const
{
    const std::lock_guard lock(m_lock);
    return m_snapshot;
}

pid_t IsolatedCheck::workerPid() const
{
    const std::lock_guard lock(m_lock);
    return m_workerPid;
}

void IsolatedCheck::abort()
{
    m_abort.store(true);
    const std::lock_guard lock(m_lock);
    if (m_workerPid != 0) {
        ::kill(m_workerPid, SIGKILL);
    }
}

CheckOutcome IsolatedCheck::refuse(const std::string& why)
{
    return fail(nullptr, why, CheckEnd::NotStarted);
}

CheckOutcome IsolatedCheck::fail(std::unique_ptr<WorkerProcess> worker, const std::string& why,
                                 CheckEnd end)
{
    if (worker != nullptr) {
        WorkerPool::shared().discard(std::move(worker));
    }
    CheckOutcome outcome;
    outcome.end = end;
    const std::lock_guard lock(m_lock);
    m_workerPid = 0;
    m_snapshot.issues.add(QcIssueCategory::File, QcSeverity::Critical, QcStreamKind::None, -1, why);
    outcome.result = m_snapshot;
    return outcome;
}

CheckOutcome IsolatedCheck::run(const std::atomic<std::int32_t>* stop)
{
    std::string error;
    std::unique_ptr<WorkerProcess> worker =
        m_abort.load() ? nullptr : WorkerPool::shared().take(m_limits, m_abort, error);
    if (worker == nullptr && !m_abort.load()) {
        return fail(nullptr, "Check process could not be started: " + error, CheckEnd::NotStarted);
    }
    if (worker != nullptr) {
        const std::lock_guard lock(m_lock);
        m_workerPid = worker->pid();
    }
    CheckOutcome outcome;
    if (worker != nullptr && !m_abort.load()) {
        outcome = relay(*worker, stop, worker);
        if (outcome.end != CheckEnd::Aborted) {
            return outcome;
        }
    }
    // Aborted: the worker (if any) is killed, and the result is what was known.
    if (worker != nullptr) {
        WorkerPool::shared().discard(std::move(worker));
    }
    const std::lock_guard lock(m_lock);
    m_workerPid = 0;
    outcome.end = CheckEnd::Aborted;
    outcome.result = m_snapshot;
    return outcome;
}

CheckOutcome IsolatedCheck::relay(WorkerProcess& worker, const std::atomic<std::int32_t>* stop,
                                  std::unique_ptr<WorkerProcess>& owned)
{
    const std::string broken = "Check process sent a broken reply";
    if (!worker.send(encodeCheck(m_request))) {
        return fail(std::move(owned), "Check process could not be reached");
    }
    StallClock stall(worker.pid());
    std::uint64_t activity = 0;
    bool stopSent = false;
    const pid_t pid = worker.pid();
    for (;;) {
        if (m_abort.load()) {
            return {CheckEnd::Aborted, 0, {}};
        }
        if (!stopSent && stop != nullptr && stop->load() != 0) {
            // To the thread that runs the check: it is then sure to see the stop before it
            // reads another request. The worker is this check's until its Done arrives.
            stopSent = ::syscall(SYS_tgkill, pid, pid, kWorkerStopSignal) == 0;
        }
        pollfd entry = {worker.fd(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(kPollPeriod.count())) > 0) {
            const bool open = worker.receive();
            while (const auto frame = worker.reader().next()) {
                if (frame->type == FrameType::Progress) {
                    const auto progress = decodeProgress(frame->payload);
                    if (!progress || progress->id != m_request.id) {
                        return fail(std::move(owned), broken);
                    }
                    m_progress.store(progress->progress, std::memory_order_relaxed);
                    if (progress->activity != activity) {
                        activity = progress->activity;
                        stall.restart();
                    }
                } else if (frame->type == FrameType::Opened) {
                    auto opened = decodeOpened(frame->payload);
                    if (!opened || opened->first != m_request.id) {
                        return fail(std::move(owned), broken);
                    }
                    const std::lock_guard lock(m_lock);
                    m_snapshot = std::move(opened->second);
                    stall.restart();
                } else if (frame->type == FrameType::Done) {
                    auto done = decodeDone(frame->payload);
                    if (!done || done->id != m_request.id) {
                        return fail(std::move(owned), broken);
                    }
                    m_progress.store(kProgressMax, std::memory_order_relaxed);
                    {
                        const std::lock_guard lock(m_lock);
                        m_snapshot = done->result;
                        m_workerPid = 0;
                    }
                    WorkerPool::shared().give(std::move(owned));
                    return {CheckEnd::Done, done->runCode, std::move(done->result)};
                } else {
                    return fail(std::move(owned), broken);
                }
            }
            if (worker.reader().broken()) {
                return fail(std::move(owned), broken);
            }
            if (!open) {
                if (m_abort.load()) {
                    return {CheckEnd::Aborted, 0, {}};
                }
                const int status = WorkerPool::shared().reap(std::move(owned));
                const std::lock_guard lock(m_lock);
                m_workerPid = 0;
                m_snapshot.issues.add(QcIssueCategory::File, QcSeverity::Critical,
                                      QcStreamKind::None, -1,
                                      status < 0 ? "Check process ended unexpectedly"
                                                 : endText(status, m_limits.memoryLimitBytes));
                return {CheckEnd::Failed, 0, m_snapshot};
            }
        }
        if (m_limits.hangTimeout.count() > 0 && stall.stalled() >= m_limits.hangTimeout) {
            const auto seconds =
                std::chrono::duration_cast<std::chrono::seconds>(m_limits.hangTimeout);
            return fail(std::move(owned), "Check process hung: no activity for " +
                                              std::to_string(seconds.count()) + " s");
        }
    }
}

WorkerPoolStats workerPoolStats()
{
    return WorkerPool::shared().stats();
}

std::size_t closeIdleWorkers()
{
    return WorkerPool::shared().closeIdle();
}

} // namespace tarvoqc
