#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "batch/workerthread.h"
#include "engine/abortpoint.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using Flag = std::atomic<std::int32_t>;

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer holds a signal back until the thread next calls into the C library, so a
// thread that only computes never sees it.
constexpr bool kSignalsWaitForLibraryCalls = true;
#else
constexpr bool kSignalsWaitForLibraryCalls = false;
#endif

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 5000ms)
{
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A worker whose body is given by the test. The body gets the stop flag as the engine
// does. What the body keeps across an abort point lives outside its own frames (in the
// test's, which the abort never skips).
class TestWorker : public WorkerThread
{
public:
    // Normal priority: under a loaded machine an idle-priority thread may get no time at
    // all, which would make the timings below meaningless.
    explicit TestWorker(std::function<int(const Flag*)> body) : m_body(std::move(body))
    {
        setStartPriority(kThreadPriorityNormal);
    }
    ~TestWorker() override { StopAndWait(); }

    using WorkerThread::setStopTimings;

    // Starts the thread and waits until the body runs.
    bool startAndWait()
    {
        return Start() && waitUntil([this] { return m_entered.load(); });
    }

private:
    int Run() override
    {
        m_entered = true;
        return m_body(stopFlag());
    }

    std::function<int(const Flag*)> m_body;
    std::atomic<bool> m_entered{false};
};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(WorkerThread, RunsTheBodyAndKeepsItsExitCode)
{
    std::atomic<int> release{0};
    std::atomic<int> runs{0};
    TestWorker worker([&](const Flag*) {
        const int run = runs.fetch_add(1) + 1;
        // The third run throws a library exception, the fourth anything else.
        if (run == 3) {
            throw std::runtime_error("broken");
        }
        if (run == 4) {
            throw run;
        }
        while (release.load() == 0) {
            std::this_thread::sleep_for(1ms);
        }
        return 40 + run;
    });
    // Without a thread there is nothing to stop or to set.
    worker.Stop();
    worker.Stop();
    EXPECT_FALSE(worker.SetPriority(kThreadPriorityIdle));
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_FALSE(worker.ExitCode().has_value());
    EXPECT_EQ(worker.threadId(), 0);

    ASSERT_TRUE(worker.Start());
    EXPECT_TRUE(worker.IsRunning());
    EXPECT_GT(worker.threadId(), 0);
    EXPECT_NE(worker.threadId(), ::gettid());
    EXPECT_FALSE(worker.Start()) << "a second thread while the first runs";
    EXPECT_FALSE(worker.ExitCode().has_value());

    release.store(1);
    ASSERT_TRUE(waitUntil([&] { return !worker.IsRunning(); }));
    EXPECT_EQ(worker.ExitCode(), 41);
    EXPECT_EQ(worker.threadId(), 0);

    // An ended thread may be started again; an exception escaping Run ends the thread only.
    for (const int exitCode : {42, kExitCodeException, kExitCodeException}) {
        ASSERT_TRUE(worker.Start());
        ASSERT_TRUE(waitUntil([&] { return !worker.IsRunning(); }));
        EXPECT_EQ(worker.ExitCode(), exitCode);
        EXPECT_FALSE(worker.WasAborted());
    }
    EXPECT_EQ(runs.load(), 4);
}

// Each stage of Stop and the kind of body it ends: a cooperative body in the graceful
// wait, a body blocked inside an abort point by the signals after it, a body busy outside
// abort points not at all (the signals are only noted), and one that never looks at the
// flag by the last resort. Stop takes as long as the stages before the ending one.
TEST(WorkerThread, EachStopStageEndsItsKindOfBody)
{
    test::TempDir dir;
    const std::string fifo = (dir / "nobody-writes").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // stage, body, blocks in open, exit code, aborted, signals seen, Stop's seconds from, to
    using Case = std::tuple<const char*, std::function<int(const Flag*)>, bool, int, bool, bool,
                            double, double>;
    const Case cases[] = {
        {"graceful",
         [](const Flag* stop) {
             while (stop->load() == 0) {
                 std::this_thread::sleep_for(1ms);
             }
             return 5;
         },
         false, 5, false, false, 0.0, 0.5},
        // Opening a FIFO that nobody writes to, retrying after interruptions as an engine
        // stuck in a slow file system would.
        {"abort point",
         [&](const Flag*) {
             AbortPoint abortable;
             int fd = -1;
             do {
                 fd = ::open(fifo.c_str(), O_RDONLY);
             } while (fd < 0 && errno == EINTR);
             if (fd >= 0) {
                 ::close(fd);
             }
             return 99;
         },
         true, kExitCodeAborted, true, true, 1.95, 3.5},
        // Busy for 2.5 s, then honours the flag: the signals must not cut it short.
        {"outside abort points",
         [](const Flag* stop) {
             const auto until = Clock::now() + 2500ms;
             std::vector<int> work;
             while (Clock::now() < until) {
                 work.assign(64, 1); // heap use, so a wrong jump would show as a leak
             }
             return stop->load() != 0 ? 7 : 8;
         },
         false, 7, false, true, 2.0, 5.0},
        // Computing for ever, outside every abort point, holding nothing.
        {"last resort",
         [](const Flag*) {
             volatile std::uint64_t sum = 0;
             for (;;) {
                 sum = sum + 1;
                 if (kSignalsWaitForLibraryCalls && sum % 4096 == 0) {
                     std::this_thread::sleep_for(1us);
                 }
             }
             return 3;
         },
         false, kExitCodeAborted, true, true, 3.0, 5.0}};
    for (const auto& [stage, body, blocksInOpen, exitCode, aborted, signalled, from, to] : cases) {
        SCOPED_TRACE(stage);
        TestWorker worker(body);
        ASSERT_TRUE(worker.startAndWait());
        // Blocked inside open: the kernel shows the thread in that system call.
        const std::string syscall =
            "/proc/self/task/" + std::to_string(worker.threadId()) + "/syscall";
        ASSERT_TRUE(!blocksInOpen || waitUntil([&] {
            return test::readFile(syscall).starts_with(std::to_string(SYS_openat) + " ");
        }));
        const auto start = Clock::now();
        EXPECT_TRUE(worker.Stop());
        const double seconds = secondsSince(start);
        EXPECT_GE(seconds, from);
        EXPECT_LT(seconds, to);
        EXPECT_FALSE(worker.IsRunning());
        EXPECT_EQ(worker.ExitCode(), exitCode);
        EXPECT_EQ(worker.WasAborted(), aborted);
        EXPECT_EQ(worker.abortSignalsSeen() > 0, signalled);
    }
}

// A child made with CLONE_VFORK that never execs holds its parent thread in a kernel wait
// that only SIGKILL ends, as a dead network mount would: no abort signal reaches it there.
TEST(WorkerThread, StopReturnsFromAThreadHeldInTheKernelAndTheSignalEndsItLater)
{
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    static std::array<char, 64 * 1024> childStack;
    TestWorker worker([&](const Flag*) {
        const auto child = [](void* fd) -> int {
            const pid_t pid = ::getpid();
            [[maybe_unused]] const auto written = ::write(*static_cast<int*>(fd), &pid, sizeof pid);
            for (;;) {
                ::pause();
            }
        };
        ::clone(child, childStack.data() + childStack.size(), CLONE_VFORK | SIGCHLD, &pipeFds[1]);
        return 4;
    });
    worker.setStopTimings({2, 50ms, 20ms, 200ms, 200ms});
    ASSERT_TRUE(worker.Start());
    pid_t child = 0;
    ASSERT_EQ(::read(pipeFds[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);

    const auto start = Clock::now();
    EXPECT_FALSE(worker.Stop());
    EXPECT_LT(secondsSince(start), 2.0) << "the caller's wait is bounded";
    EXPECT_TRUE(worker.IsRunning());
    EXPECT_FALSE(worker.HasExited());

    // Released by the kernel, the thread meets its pending signal before any more of its
    // own code runs: it ends through the forced abort, not by returning 4.
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    worker.StopAndWait();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_EQ(worker.ExitCode(), kExitCodeAborted);
    EXPECT_TRUE(worker.WasAborted());
}

// Workers that must be aborted, with the graceful wait shortened so the signals come at
// random moments; each is destroyed right after its stop.
TEST(WorkerThread, ForcedAbortsAtRandomMomentsLandOnlyInAbortPoints)
{
    std::mt19937 random(20240611);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::atomic<int> sink{0};
    for (int i = 0; i < 150; ++i) {
        SCOPED_TRACE(i);
        // Alternates heap work outside abort points with short blocking waits inside them,
        // and never looks at the stop flag, so every stop ends in a forced abort that lands
        // at a random place. A jump outside an abort point would leak or corrupt the heap.
        auto worker = std::make_unique<TestWorker>([&, seed = unsigned(random())](const Flag*) {
            for (unsigned state = seed;;) {
                state = state * 1103515245u + 12345u;
                {
                    const std::vector<int> buffer(1024 + state % 65536, 1);
                    sink.fetch_add(std::accumulate(buffer.begin(), buffer.end(), 0));
                }
                AbortPoint abortable;
                pollfd entry = {fds[0], POLLIN, 0};
                ::poll(&entry, 1, static_cast<int>(state % 2));
            }
            return 1;
        });
        worker->setStopTimings({static_cast<int>(random() % 3), 1ms, 1ms, 5000ms});
        ASSERT_TRUE(worker->Start());
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        const auto start = Clock::now();
        EXPECT_TRUE(worker->Stop());
        ASSERT_LT(secondsSince(start), 5.0);
        EXPECT_EQ(worker->ExitCode(), kExitCodeAborted);
        EXPECT_TRUE(worker->WasAborted());
        worker.reset();
    }
    ::close(fds[0]);
    ::close(fds[1]);
}

} // namespace
} // namespace tarvoqc
