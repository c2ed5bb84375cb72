#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <stdexcept>
#include <thread>
#include <tuple>

#include <unistd.h>

#include <gtest/gtest.h>

#include "batch/workerthread.h"

namespace tarvoqc {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using Flag = std::atomic<std::int32_t>;

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

// A worker whose body is given by the test. The body gets the stop flag and the flag that
// the forced abort raises, as a check's relay watches its process.
class TestWorker : public WorkerThread
{
public:
    // Normal priority: under a loaded machine an idle-priority thread may get no time at
    // all, which would make the timings below meaningless.
    explicit TestWorker(std::function<int(const Flag*, const std::atomic<bool>*)> body)
        : m_body(std::move(body))
    {
        setStartPriority(kThreadPriorityNormal);
    }
    ~TestWorker() override { Stop(); }

    using WorkerThread::setStopTimings;
    int forcedAborts() const { return m_forced.load(); }

protected:
    int Run() override { return m_body(stopFlag(), &m_killed); }
    void ForceAbort() override
    {
        m_forced.fetch_add(1);
        m_killed.store(true);
    }

private:
    std::function<int(const Flag*, const std::atomic<bool>*)> m_body;
    std::atomic<bool> m_killed{false};
    std::atomic<int> m_forced{0};
};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(WorkerThread, RunsTheBodyAndKeepsItsExitCode)
{
    std::atomic<int> release{0};
    std::atomic<int> runs{0};
    TestWorker worker([&](const Flag*, const std::atomic<bool>*) {
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
    EXPECT_EQ(worker.forcedAborts(), 0);
}

// A body that honours the stop flag ends in the graceful wait; one that ignores it is
// ended through ForceAbort after the whole wait, with the abort exit code, and Stop
// returns as soon as it has gone.
TEST(WorkerThread, StopWaitsTwoSecondsThenAbortsByForce)
{
    // name, body, exit code, aborted, Stop's seconds from, to
    using Body = std::function<int(const Flag*, const std::atomic<bool>*)>;
    const std::tuple<const char*, Body, int, bool, double, double> cases[] = {
        {"honours the flag",
         [](const Flag* stop, const std::atomic<bool>*) {
             while (stop->load() == 0) {
                 std::this_thread::sleep_for(1ms);
             }
             return 5;
         },
         5, false, 0.0, 0.5},
        {"ignores the flag",
         [](const Flag*, const std::atomic<bool>* killed) {
             while (!killed->load()) {
                 std::this_thread::sleep_for(1ms);
             }
             return 6;
         },
         kExitCodeAborted, true, 1.95, 3.0}};
    for (const auto& [name, body, exitCode, aborted, from, to] : cases) {
        SCOPED_TRACE(name);
        TestWorker worker(body);
        ASSERT_TRUE(worker.Start());
        const auto start = Clock::now();
        worker.Stop();
        const double seconds = secondsSince(start);
        EXPECT_GE(seconds, from);
        EXPECT_LT(seconds, to);
        EXPECT_FALSE(worker.IsRunning());
        EXPECT_EQ(worker.ExitCode(), exitCode);
        EXPECT_EQ(worker.WasAborted(), aborted);
        EXPECT_EQ(worker.forcedAborts(), aborted ? 1 : 0);
    }
}

// Bodies that end on their own around the end of the graceful wait: whichever comes
// first, the exit code and WasAborted agree, and ForceAbort is called only on a thread
// that was still running.
TEST(WorkerThread, AnEndAtTheEdgeOfTheWaitIsEitherAbortedOrNot)
{
    std::mt19937 random(20261125);
    for (int round = 0; round < 40; ++round) {
        const auto runFor = std::chrono::microseconds(8000 + random() % 4000);
        SCOPED_TRACE(runFor.count());
        TestWorker worker([runFor](const Flag*, const std::atomic<bool>* killed) {
            const auto until = Clock::now() + runFor;
            while (Clock::now() < until && !killed->load()) {
                std::this_thread::yield();
            }
            return 7;
        });
        worker.setStopTimings({5, 2ms});
        ASSERT_TRUE(worker.Start());
        worker.Stop();
        EXPECT_EQ(worker.WasAborted(), worker.ExitCode() == kExitCodeAborted);
        EXPECT_EQ(worker.WasAborted(), worker.forcedAborts() == 1);
        EXPECT_TRUE(worker.ExitCode() == 7 || worker.ExitCode() == kExitCodeAborted);
    }
}

} // namespace
} // namespace tarvoqc
