#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "batch/runcontroller.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Clock = std::chrono::steady_clock;

std::string clip(const char* name)
{
    return test::testClip(name).string();
}

// Ticks until the controller is idle (or the time is up) and keeps every report.
std::vector<TickReport> runUntilIdle(RunController& controller)
{
    std::vector<TickReport> reports;
    const auto end = Clock::now() + std::chrono::seconds(120);
    while (Clock::now() < end) {
        reports.push_back(controller.tick());
        if (controller.state() == RunState::Idle) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return reports;
}

TEST(RunController, CheckAllGivesEveryItemAResultAndMovesPastAClipThatCannotOpen)
{
    for (std::size_t runners : {1U, 2U}) {
        SCOPED_TRACE(runners);
        TaskList list;
        for (const char* name : {"mpeg2_pcm.mxf", "text.mov", "nothere.mxf", "h264_aac.mp4"}) {
            list.AppendFromCommandLine((test::testMediaDir() / name).string());
        }
        RunController controller(list, {3, -1, runners, kThreadPriorityNormal, {}});
        EXPECT_EQ(controller.state(), RunState::Idle);
        ASSERT_TRUE(controller.CheckAll());
        EXPECT_FALSE(controller.CheckAll()) << "only from Idle";
        EXPECT_EQ(controller.state(), RunState::All);

        const auto reports = runUntilIdle(controller);
        ASSERT_EQ(controller.state(), RunState::Idle);
        EXPECT_TRUE(reports.back().allDone);
        const QcScore expected[] = {5, 0, 0, 5};
        std::size_t harvested = 0;
        for (std::size_t i = 0; i < list.size(); ++i) {
            ASSERT_TRUE(list.item(i).finished()) << list.item(i).path();
            EXPECT_EQ(list.item(i).result()->score(), expected[i]) << list.item(i).path();
            EXPECT_EQ(list.item(i).result()->path, list.item(i).path());
        }
        // Statuses: nothing before the first runner, then busy, and "Finished" at the end.
        std::vector<std::string_view> texts;
        for (const TickReport& r : reports) {
            harvested += r.harvestedRows.size();
            if (r.status) {
                texts.push_back(*r.status);
            }
        }
        EXPECT_EQ(harvested, list.size());
        ASSERT_GE(texts.size(), 2U);
        EXPECT_EQ(texts.front(), kStatusWorking);
        EXPECT_EQ(texts.back(), kStatusFinished);
        for (std::size_t i = 1; i < texts.size(); ++i) {
            EXPECT_NE(texts[i], texts[i - 1]) << "a status is only reported when it changes";
        }
    }
}

TEST(RunController, CheckAllOnAFinishedListIsDoneButCheckSelectedChecksAgain)
{
    TaskList empty;
    RunController idle(empty, {});
    EXPECT_FALSE(idle.CheckAll());

    TaskList list;
    list.AppendFromCommandLine(clip("mpeg2_pcm.mxf"));
    list.AppendFromCommandLine(clip("text.mov"));
    auto old = std::make_unique<QcResult>();
    old->issues.add(QcIssueCategory::File, QcSeverity::Critical, QcStreamKind::None, -1, "stale");
    list.item(0).setResult(std::move(old));
    list.item(1).setResult(std::make_unique<QcResult>());
    RunController controller(list, {3, -1, 1, kThreadPriorityNormal, {}});
    ASSERT_TRUE(controller.CheckAll());
    const TickReport r = controller.tick();
    EXPECT_TRUE(r.allDone);
    EXPECT_EQ(controller.state(), RunState::Idle);
    EXPECT_FALSE(r.status) << "nothing was ever shown, so nothing changes";

    EXPECT_FALSE(controller.CheckSelected(-1));
    EXPECT_FALSE(controller.CheckSelected(2));
    ASSERT_TRUE(controller.CheckSelected(0));
    EXPECT_EQ(controller.state(), RunState::Single);
    EXPECT_FALSE(controller.CheckAll()) << "ignored while a single check runs";
    EXPECT_FALSE(controller.CheckSelected(1)) << "ignored while a single check runs";
    runUntilIdle(controller);
    EXPECT_EQ(controller.state(), RunState::Idle);
    EXPECT_EQ(list.item(0).result()->score(), 5);
    EXPECT_TRUE(list.item(0).result()->issues.empty());
    EXPECT_EQ(list.item(1).result()->score(), 5) << "only the selected item was checked";
}

TEST(RunController, ClearAllDuringACheckDiscardsItsResult)
{
    TaskList list;
    list.AppendFromCommandLine(clip("long.ts"));
    list.AppendFromCommandLine(clip("mpeg2_pcm.mxf"));
    RunController controller(list, {3, -1, 1, kThreadPriorityNormal, {}});
    ASSERT_TRUE(controller.CheckAll());
    const TickReport first = controller.tick();
    ASSERT_TRUE(controller.busy());
    EXPECT_EQ(first.status, kStatusWorking);
    EXPECT_FALSE(controller.CheckSelected(1)) << "ignored while all are checked";
    EXPECT_EQ(controller.state(), RunState::All);
    list.ClearAll();
    // The check goes on, its progress shown; when it ends its result has nowhere to go and
    // the run is over.
    const auto reports = runUntilIdle(controller);
    EXPECT_EQ(controller.state(), RunState::Idle);
    EXPECT_TRUE(list.empty());
    bool sawMiddle = false;
    for (const TickReport& r : reports) {
        EXPECT_TRUE(r.harvestedRows.empty());
        if (r.progress) {
            EXPECT_GE(*r.progress, 0);
            EXPECT_LE(*r.progress, kProgressMax);
            sawMiddle = sawMiddle || (*r.progress > 0 && *r.progress < kProgressMax);
        }
    }
    EXPECT_TRUE(sawMiddle);
    EXPECT_TRUE(reports.back().allDone);
    EXPECT_EQ(reports.back().status, kStatusFinished);

    // A new item added later is not mistaken for the cleared one.
    list.AppendFromCommandLine(clip("text.mov"));
    EXPECT_FALSE(list.item(0).finished());
}

TEST(CheckRunner, WindowChecksRunAtIdlePriority)
{
    TaskList list;
    list.AppendFromCommandLine(clip("long.ts"));
    CheckRunner runner(list.item(0), 3, -1);
    runner.StartCheck();
    pid_t pid = 0;
    const auto until = Clock::now() + std::chrono::seconds(10);
    while ((pid = runner.workerPid()) == 0 && Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_NE(pid, 0);
    const int policy = ::sched_getscheduler(pid);
    EXPECT_TRUE(policy == SCHED_IDLE || ::getpriority(PRIO_PROCESS, static_cast<id_t>(pid)) == 19)
        << "policy " << policy;
}

// A FIFO that nobody writes to, in place of a clip: refused at once, never a hang. The
// command line's wait returns as soon as that check ends, and rows inserted before the
// next-item cursor during the run are still checked.
TEST(RunController, WaitEndsWithTheCheckAndInsertedRowsAreStillChecked)
{
    const test::TempDir dir;
    const std::string fifo = (dir / "stuck.mxf").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    TaskList list;
    list.AppendFromCommandLine(fifo);
    list.AppendFromCommandLine(clip("mpeg2_pcm.mxf"));
    RunController controller(list, {1, -1, 1, kThreadPriorityNormal});
    ASSERT_TRUE(controller.CheckAll());
    controller.tick();
    const auto start = Clock::now();
    controller.waitForRunnerEnd(std::chrono::seconds(30));
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 5.0);
    ASSERT_EQ(controller.tick().harvestedRows, std::vector<std::size_t>{0});

    list.AddFiles(0, {(dir / "inserted.mxf").string()});
    while (controller.state() != RunState::Idle) {
        controller.waitForRunnerEnd(std::chrono::seconds(30));
        controller.tick();
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
        EXPECT_TRUE(list.item(i).finished()) << list.item(i).path();
    }
}

TEST(CheckRunner, DestroyedAtRandomMomentsOfARealCheck)
{
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> delayMs(0, 400);
    TaskList list;
    list.AppendFromCommandLine(clip("long.ts"));
    for (int round = 0; round < 12; ++round) {
        const int delay = delayMs(random);
        SCOPED_TRACE(delay);
        const auto start = Clock::now();
        {
            CheckRunner runner(list.item(0), 3, -1, WorkerLimits{kThreadPriorityNormal});
            runner.StartCheck();
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
        }
        // Whatever the moment, the runner is gone within the bound of its stop stages.
        EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(),
                  delay / 1000.0 + 3.5);
    }
}

TEST(RunController, DestroyedWhileCheckingStopsItsRunners)
{
    TaskList list;
    list.AppendFromCommandLine(clip("long.ts"));
    list.AppendFromCommandLine(clip("long.ts"));
    const auto start = Clock::now();
    {
        RunController controller(list, {3, -1, 2, kThreadPriorityNormal, {}});
        ASSERT_TRUE(controller.CheckAll());
        controller.tick();
        EXPECT_EQ(controller.runners().size(), 2U);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 3.5);
    EXPECT_FALSE(list.item(0).finished()) << "an interrupted check keeps no result";
}

TEST(CheckRunner, CheckSettingsComeFromTheOptionsSection)
{
    const test::TempDir dir;
    const std::string ini = (dir.path() / "TarvoQC.ini").string();
    // The file's text ("" for no file), the level and options read; 5 is not a level.
    const std::tuple<const char*, CheckLevel, ClipCheckOptions> cases[] = {
        {"", 3, {}},
        {"Check.Level=4\nLoudness.Target=-16\nTruePeak.Limit=-2.5\n",
         4,
         {-16.0, 1.0, -2.5, 0, true, std::nullopt, std::nullopt}},
        {"Check.Level=5\n", 3, {}}};
    for (const auto& [text, level, options] : cases) {
        SCOPED_TRACE(text);
        if (*text != '\0') {
            test::writeFile(ini, std::string("[Options]\n") + text);
        }
        EXPECT_EQ(loadCheckSettings(ini).level, level);
        EXPECT_EQ(loadCheckSettings(ini).options, options);
    }
}

} // namespace
} // namespace tarvoqc
