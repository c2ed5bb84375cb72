#include "batch/checkworker.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "batch/workerprocess.h"
#include "batch/workerthread.h"
#include "engine/clipchecker.h"
#include "engine/framegrabber.h"

namespace tarvoqc {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers map terabytes of shadow memory (no data limit fits them) and start helper
// processes that trace the worker for their leak and crash reports.
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr int kProgressPeriodMs = 50;

// One fault of the test seam.
struct Fault
{
    std::string kind;
    std::string marker;
};

std::vector<Fault> faultsFromEnvironment()
{
    std::vector<Fault> faults;
    const char* value = std::getenv(kWorkerFaultVariable);
    std::string_view rest = value != nullptr ? value : "";
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        const std::string_view rule = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        const std::size_t colon = rule.find(':');
        if (colon != std::string_view::npos && colon + 1 < rule.size()) {
            faults.push_back(
                {std::string(rule.substr(0, colon)), std::string(rule.substr(colon + 1))});
        }
    }
    return faults;
}

// Meets the fault of the seam whose marker the path holds, if any.
void meetFault(const std::vector<Fault>& faults, const std::string& path, bool memoryLimited)
{
    for (const Fault& fault : faults) {
        if (path.find(fault.marker) == std::string::npos) {
            continue;
        }
        if (fault.kind == "segv") {
            std::signal(SIGSEGV, SIG_DFL); // past any sanitizer's handler: a plain crash
            std::raise(SIGSEGV);
        } else if (fault.kind == "abort") {
            std::abort();
        } else if (fault.kind == "exit") {
            ::_exit(3);
        } else if (fault.kind == "hang") {
            for (;;) {
                ::pause();
            }
        } else if (fault.kind == "memory" && memoryLimited) {
            // Touched, so the pages are real; the limit ends it with bad_alloc.
            std::vector<std::unique_ptr<char[]>> hog;
            for (;;) {
                constexpr std::size_t kChunk = 64 * 1024 * 1024;
                hog.push_back(std::make_unique<char[]>(kChunk));
                std::memset(hog.back().get(), 1, kChunk);
            }
        }
    }
}

// The socket to the parent: whole frames, written under a lock by the check and by the
// progress sampler.
class Channel
{
public:
    explicit Channel(int fd) : m_fd(fd) {}

    // False once the parent is gone.
    bool send(const std::string& frame)
    {
        const std::lock_guard lock(m_lock);
        return sendFrame(m_fd, frame, true);
    }

private:
    const int m_fd;
    std::mutex m_lock;
};

// The stop of the running check. The program asks for it with kWorkerStopSignal, aimed at
// the worker's main thread; the handler only stores to it.
std::atomic<std::int32_t> g_stop{0};

void onStopSignal(int /*signal*/)
{
    g_stop.store(1);
}

// What the check and the progress sampler share.
struct Shared
{
    std::mutex lock;
    std::condition_variable changed;
    bool closing = false;
    // The check in progress (under lock): its request id and its checker; 0 and null
    // between checks.
    std::uint64_t currentId = 0;
    const ClipChecker* current = nullptr;
    // The request whose open has ended, and the one whose Opened message went out.
    std::uint64_t openDone = 0;
    std::uint64_t openedSent = 0;
};

// The progress sampler: while a check runs it looks at it every 50 ms and sends its
// progress when it moved (and, once, what the check knows so far). When the program that
// started the worker has gone, the worker ends at once: nobody is left to want the result.
void sampleProgress(Channel& channel, Shared& shared, pid_t parent)
{
    WorkerProgress last;
    std::unique_lock lock(shared.lock);
    while (!shared.closing) {
        shared.changed.wait_for(lock, std::chrono::milliseconds(kProgressPeriodMs));
        if (::getppid() != parent) {
            ::_exit(kWorkerExitNormal);
        }
        if (shared.current == nullptr) {
            continue;
        }
        const WorkerProgress now{shared.currentId, shared.current->ClipProgress(),
                                 shared.current->activity()};
        // What the check knows so far goes out once it has run a while: a short check
        // costs no second message, and a long one shows its facts (and keeps them, if the
        // process dies) while it runs.
        // Sent under the lock: the check cannot end meanwhile, so its Done is always its
        // last message, and an idle worker never has anything left to say.
        if (shared.openDone == shared.currentId && shared.openedSent != shared.currentId) {
            shared.openedSent = shared.currentId;
            channel.send(encodeOpened(shared.currentId, shared.current->result()));
        }
        if (!(now == last)) {
            last = now;
            channel.send(encodeProgress(now));
        }
    }
}

// One request: the same calls, in the same order, as a check in the program's own process.
CheckDone runCheck(const CheckRequest& request, const std::vector<Fault>& faults,
                   bool memoryLimited, Shared& shared)
{
    auto checker = std::make_unique<ClipChecker>();
    checker->setOptions(request.options);
    checker->setInterruptFlag(&g_stop);
    {
        const std::lock_guard lock(shared.lock);
        shared.currentId = request.id;
        shared.current = checker.get();
    }
    CheckDone done;
    done.id = request.id;
    try {
        meetFault(faults, request.path, memoryLimited);
        const bool opened = checker->Open(request.path, request.level, request.decoderThreadOption);
        {
            const std::lock_guard lock(shared.lock);
            shared.openDone = request.id;
        }
        if (opened) {
            done.runCode = checker->Run(&g_stop);
        }
    } catch (const std::bad_alloc&) {
        ::_exit(kWorkerExitOutOfMemory);
    } catch (...) {
        // The engine keeps its findings as issues; an exception is a fault of its code, and
        // the result holds what was found before it.
    }
    checker->Close();
    done.result = checker->result();
    const std::lock_guard lock(shared.lock);
    shared.current = nullptr;
    shared.currentId = 0;
    return done;
}

bool installSyscallFilter()
{
    scmp_filter_ctx filter = ::seccomp_init(SCMP_ACT_ALLOW);
    if (filter == nullptr) {
        return false;
    }
    const auto refuse = [&](int syscall) {
        return ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), syscall, 0) == 0;
    };
    bool ok = true;
    // No network, ever: a clip may name other files or addresses, and a decoder taken over
    // by a hostile clip must not reach out.
    for (const int syscall :
         {SCMP_SYS(socket), SCMP_SYS(socketpair), SCMP_SYS(connect), SCMP_SYS(bind),
          SCMP_SYS(listen), SCMP_SYS(accept), SCMP_SYS(accept4)}) {
        ok = refuse(syscall) && ok;
    }
    if (!kSanitized) {
        // No other programs and no tracing: threads are made with clone(CLONE_THREAD), so
        // only a clone without it (a new process) is refused. clone3's flags cannot be
        // looked at; ENOSYS makes the C library fall back to clone.
        for (const int syscall :
             {SCMP_SYS(fork), SCMP_SYS(vfork), SCMP_SYS(execve), SCMP_SYS(execveat),
              SCMP_SYS(ptrace), SCMP_SYS(process_vm_readv), SCMP_SYS(process_vm_writev)}) {
            ok = refuse(syscall) && ok;
        }
        ok = ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(EPERM), SCMP_SYS(clone), 1,
                                SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0)) == 0 &&
             ok;
        ok = ::seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0 && ok;
    }
    ok = ok && ::seccomp_load(filter) == 0;
    ::seccomp_release(filter);
    return ok;
}

} // namespace

WorkerReady restrictWorker(const WorkerConfig& config)
{
    WorkerReady ready;
    ready.protocolVersion = kCheckProtocolVersion;
    const rlimit noCore = {0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    if (config.memoryLimitBytes > 0 && !kSanitized) {
        const rlimit data = {config.memoryLimitBytes, config.memoryLimitBytes};
        ready.memoryLimited = ::setrlimit(RLIMIT_DATA, &data) == 0;
    }
    // Threads made later inherit the priority of the thread that makes them.
    setCallingThreadPriority(config.priority);
    ready.noNewPrivileges = ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
    ready.syscallFilter = ready.noNewPrivileges && installSyscallFilter();
    return ready;
}

void restrictPictureReader()
{
    WorkerConfig config;
    config.memoryLimitBytes = WorkerLimits{}.memoryLimitBytes;
    restrictWorker(config);
    FrameGrabber::silenceMediaLibraries();
}

int serveCheckRequests(int fd, const WorkerReady& ready, pid_t parent)
{
    // The stop only stores a flag; a blocking call it interrupts is resumed.
    struct sigaction action = {};
    action.sa_handler = &onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(kWorkerStopSignal, &action, nullptr);

    Channel channel(fd);
    if (::getppid() != parent || !channel.send(encodeReady(ready))) {
        return kWorkerExitNormal;
    }
    const std::vector<Fault> faults = faultsFromEnvironment();
    Shared shared;
    std::thread sampler;
    {
        // The stop is meant for the thread that runs the checks, never the sampler.
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, kWorkerStopSignal);
        ::pthread_sigmask(SIG_BLOCK, &stop, nullptr);
        try {
            sampler = std::thread(sampleProgress, std::ref(channel), std::ref(shared), parent);
        } catch (const std::system_error&) {
            return kWorkerExitOutOfMemory;
        }
        ::pthread_sigmask(SIG_UNBLOCK, &stop, nullptr);
    }
    // The requests are read here, on the thread that runs them: a request costs no hand-over
    // between threads.
    FrameReader reader;
    std::vector<char> buffer(64 * 1024);
    int status = kWorkerExitNormal;
    for (bool open = true; open;) {
        const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break; // the program closed its end
        }
        reader.append(buffer.data(), static_cast<std::size_t>(n));
        while (const auto frame = reader.next()) {
            const auto request =
                frame->type == FrameType::Check ? decodeCheck(frame->payload) : std::nullopt;
            if (!request) {
                status = kWorkerExitProtocol;
                open = false;
                break;
            }
            // A stop sent for an earlier check arrived before this request was read: it
            // never reaches this one.
            g_stop.store(0);
            const CheckDone done = runCheck(*request, faults, ready.memoryLimited, shared);
            if (!channel.send(encodeDone(done))) {
                open = false;
                break;
            }
        }
        open = open && !reader.broken();
    }
    {
        const std::lock_guard lock(shared.lock);
        shared.closing = true;
    }
    shared.changed.notify_all();
    sampler.join();
    return status;
}

} // namespace tarvoqc
