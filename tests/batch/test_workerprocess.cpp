#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <signal.h>

#include <gtest/gtest.h>

#include "batch/checkprotocol.h"
#include "batch/checkworker.h"
#include "batch/workerprocess.h"
#include "engine/clipchecker.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true; // workers run without a memory limit
#else
constexpr bool kSanitized = false;
#endif

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Every field of a result set, with bytes a Linux name may hold but UTF-8 may not.
QcResult fullResult()
{
    QcResult result;
    result.path = "/in/\xff\xfe odd\nname.ts";
    result.checkLevel = 4;
    result.opened = true;
    result.facts = {0x21, 7,         411783797, 132000000000000000ULL, 132000000000000001ULL,
                    -5,   600000000, kNoTime,   std::string(64, 'A'),  0x0123456789ABCDEFULL,
                    {},   "mpegts"};
    StreamFacts video{StreamType::Video,
                      "h264",
                      0,
                      600000000,
                      123456,
                      0,
                      599600000,
                      1920,
                      1080,
                      1,
                      1,
                      25,
                      1,
                      0,
                      0,
                      {}};
    StreamFacts audio{StreamType::Audio,
                      "aac",
                      kNoTime,
                      kNoTime,
                      1,
                      kNoTime,
                      kNoTime,
                      0,
                      0,
                      0,
                      0,
                      0,
                      0,
                      2,
                      48000,
                      {'e', 'n', 'g', '\0'}};
    result.facts.streams = {video, audio, StreamFacts{}};
    result.issues.add({QcIssueCategory::Frames, QcSeverity::High, QcStreamKind::Video, 0,
                       "Gap in TC of 2.00 at 4.00", 40000000, kNoTime});
    result.issues.add({QcIssueCategory::Video, QcSeverity::Low, QcStreamKind::Video, 0,
                       "Black picture for 1.20 sec from -0.50", -5000000, 12000000});
    result.issues.add(QcIssueCategory::File, QcSeverity::Critical, QcStreamKind::None, -1,
                      std::string("with \0 inside", 13));
    return result;
}

void expectSameResult(const QcResult& a, const QcResult& b)
{
    EXPECT_EQ(a.path, b.path);
    EXPECT_EQ(a.checkLevel, b.checkLevel);
    EXPECT_EQ(a.opened, b.opened);
    EXPECT_EQ(a.facts, b.facts);
    ASSERT_EQ(a.issues.size(), b.issues.size());
    for (std::size_t i = 0; i < a.issues.size(); ++i) {
        EXPECT_EQ(a.issues.at(i), b.issues.at(i)) << "issue " << i;
    }
}

// One frame's type and payload, through the reader.
std::optional<std::pair<FrameType, std::string>> readBack(const std::string& bytes)
{
    FrameReader reader;
    reader.append(bytes.data(), bytes.size());
    const auto frame = reader.next();
    if (!frame || reader.pending() != 0) {
        return std::nullopt;
    }
    return std::pair(frame->type, std::string(frame->payload));
}

TEST(CheckProtocol, EveryMessageComesBackExactly)
{
    const CheckRequest request{77,
                               std::string("/a/\x80\x81.mxf"),
                               4,
                               -1,
                               {-16.0, 0.5, -2.0, 3, true, -18.0, std::nullopt}};
    auto frame = readBack(encodeCheck(request));
    ASSERT_TRUE(frame && frame->first == FrameType::Check);
    EXPECT_EQ(decodeCheck(frame->second), request);

    const WorkerReady ready{kCheckProtocolVersion, true, false, true};
    frame = readBack(encodeReady(ready));
    ASSERT_TRUE(frame && frame->first == FrameType::Ready);
    EXPECT_EQ(decodeReady(frame->second), ready);

    const WorkerProgress progress{77, 51234, 1ULL << 40};
    frame = readBack(encodeProgress(progress));
    ASSERT_TRUE(frame && frame->first == FrameType::Progress);
    EXPECT_EQ(decodeProgress(frame->second), progress);

    const QcResult result = fullResult();
    frame = readBack(encodeOpened(9, result));
    ASSERT_TRUE(frame && frame->first == FrameType::Opened);
    const auto opened = decodeOpened(frame->second);
    ASSERT_TRUE(opened);
    EXPECT_EQ(opened->first, 9U);
    expectSameResult(opened->second, result);

    frame = readBack(encodeDone({9, -9, result}));
    ASSERT_TRUE(frame && frame->first == FrameType::Done);
    const auto done = decodeDone(frame->second);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->runCode, -9);
    expectSameResult(done->result, result);
}

// What a delivery profile needs crosses the process boundary too: the content rules one
// way, the facts the format rules compare the other.
TEST(CheckProtocol, ProfileFactsAndContentRulesComeBackExactly)
{
    CheckRequest request{5, "clip.mxf", 4, 0, {}};
    request.options.minBlackSeconds = 0.5;
    request.options.minFrozenSeconds = 1.25;
    request.options.minSilenceSeconds = 4.0;
    request.options.leadRunsAllowed = false;
    auto frame = readBack(encodeCheck(request));
    ASSERT_TRUE(frame);
    EXPECT_EQ(decodeCheck(frame->second), request);

    QcResult result = fullResult();
    result.facts.container = "mov,mp4,m4a,3gp,3g2,mj2";
    StreamFacts& video = result.facts.streams[0];
    video.pixelFormat = "yuv422p10le";
    video.fieldOrder = 2;
    video.bitDepth = 10;
    video.colourPrimaries = "bt709";
    video.colourTransfer = "bt709";
    video.colourMatrix = "bt709";
    result.facts.streams[1].bitDepth = 24;
    frame = readBack(encodeDone({5, 1, result}));
    ASSERT_TRUE(frame);
    const auto done = decodeDone(frame->second);
    ASSERT_TRUE(done);
    expectSameResult(done->result, result);
}

// A worker taken over by a hostile clip may send anything: every cut of a valid payload,
// a byte too many, and values out of range are refused, never half read.
TEST(CheckProtocol, BrokenPayloadsAreRefused)
{
    const std::string done = encodeDone({3, 1, fullResult()}).substr(kFrameHeaderBytes);
    for (std::size_t cut = 0; cut < done.size(); ++cut) {
        EXPECT_FALSE(decodeDone(done.substr(0, cut))) << "cut at " << cut;
    }
    EXPECT_FALSE(decodeDone(done + '\0'));
    const std::string ready = encodeReady({1, true, true, true}).substr(kFrameHeaderBytes);
    EXPECT_FALSE(decodeReady(ready.substr(0, ready.size() - 1) + '\2')) << "a flag of 2";

    // An issue of an unknown category, and a count of streams no result can have.
    QcResult oneIssue;
    oneIssue.issues.add(QcIssueCategory::Audio, QcSeverity::Low, QcStreamKind::Audio, 1, "x");
    std::string payload = encodeOpened(1, oneIssue).substr(kFrameHeaderBytes);
    const std::size_t category = payload.size() - 8 - 8 - 4 - 1 - 4 - 4 - 4 - 4;
    payload[category] = 6;
    EXPECT_FALSE(decodeOpened(payload));
    // A length without a place.
    std::string length = encodeOpened(1, oneIssue).substr(kFrameHeaderBytes);
    length.replace(length.size() - 8, 8, std::string("\x10\0\0\0\0\0\0\0", 8));
    EXPECT_FALSE(decodeOpened(length));
    std::string streams = encodeOpened(1, QcResult{}).substr(kFrameHeaderBytes);
    const std::size_t streamCount = streams.size() - 4 - 4;
    streams.replace(streamCount, 4, std::string("\xff\xff\xff\x7f", 4));
    EXPECT_FALSE(decodeOpened(streams));
}

TEST(CheckProtocol, FramesArriveInPiecesAndOversizedOnesBreakTheStream)
{
    const std::string bytes = encodeCheck({1, "a", 3, 0, {}}) + encodeProgress({1, 2, 3}) +
                              encodeCheck({2, "b", 3, 0, {}});
    FrameReader reader;
    std::vector<FrameType> types;
    for (const char byte : bytes) {
        reader.append(&byte, 1);
        while (const auto frame = reader.next()) {
            types.push_back(frame->type);
        }
    }
    EXPECT_EQ(types, (std::vector{FrameType::Check, FrameType::Progress, FrameType::Check}));
    EXPECT_EQ(reader.pending(), 0U);

    FrameReader huge;
    const std::string header("\x01\x00\x00\x08\x0d", 5); // 128 MiB announced
    huge.append(header.data(), header.size());
    EXPECT_FALSE(huge.next());
    EXPECT_TRUE(huge.broken());
}

// The result of a check in a worker is the result of the same check in this process,
// issue for issue and fact for fact, on every clip the tests make, at every level.
TEST(IsolatedCheck, GivesExactlyTheResultOfACheckInTheProgramsOwnProcess)
{
    std::vector<std::filesystem::path> clips;
    for (const auto& entry : std::filesystem::directory_iterator(test::testMediaDir())) {
        if (entry.is_regular_file()) {
            clips.push_back(entry.path());
        }
    }
    clips.push_back(test::testMediaDir() / "no such clip.ts");
    ASSERT_GT(clips.size(), 40U);
    std::uint64_t id = 0;
    for (const CheckLevel level : {1, 2, 3, 4}) {
        for (const auto& clip : clips) {
            SCOPED_TRACE(clip.filename().string() + " at level " + std::to_string(level));
            const std::atomic<std::int32_t> stop{0};
            ClipChecker checker;
            checker.setInterruptFlag(&stop);
            int runCode = 0;
            if (checker.Open(clip.string(), level, -1)) {
                runCode = checker.Run(&stop);
            }
            checker.Close();

            IsolatedCheck isolated({++id, clip.string(), level, -1, {}},
                                   WorkerLimits{kThreadPriorityNormal});
            const CheckOutcome outcome = isolated.run(&stop);
            ASSERT_EQ(outcome.end, CheckEnd::Done);
            EXPECT_EQ(outcome.runCode, runCode);
            expectSameResult(outcome.result, checker.result());
        }
    }
    EXPECT_LE(workerPoolStats().started, 2U) << "one worker checks clip after clip";
    EXPECT_EQ(closeIdleWorkers(), 0U) << "every worker ends cleanly (no leak, no fault)";
}

// Each way a worker can fail costs its own clip only: the clip gets the issue that says
// what happened, and the next clip is checked by a fresh worker.
TEST(IsolatedCheck, AWorkerThatFailsCostsOneClip)
{
    const test::TempDir dir;
    const std::string good = test::testClip("h264_aac.mp4").string();
    closeIdleWorkers(); // the workers below start with the fault rules
    ::setenv(kWorkerFaultVariable,
             "segv:segv-here,abort:abort-here,exit:exit-here,hang:hang-here,memory:memory-here", 1);
    // marker, expected issue, seconds at most
    const std::tuple<const char*, const char*, double> cases[] = {
        {"segv-here", "Check process crashed: signal 11 (SIGSEGV, Segmentation fault)", 2.0},
        {"abort-here", "Check process crashed: signal 6 (SIGABRT, Aborted)", 2.0},
        {"exit-here", "Check process ended unexpectedly (exit status 3)", 2.0},
        {"hang-here", "Check process hung: no activity for 1 s", 4.0},
        {"memory-here", "Check process ran out of memory (limit 256 MiB)", 10.0},
    };
    std::uint64_t id = 1000;
    for (const auto& [marker, issue, seconds] : cases) {
        SCOPED_TRACE(marker);
        if (std::string_view(marker) == "memory-here" && kSanitized) {
            std::printf("note: sanitizer builds run workers without a memory limit; the memory "
                        "case is left out\n");
            continue;
        }
        const std::string clip = (dir / (std::string(marker) + ".mp4")).string();
        std::filesystem::copy_file(good, clip);
        // One second of silence is a hang only where a hang is what the case is about: a
        // sanitizer's own work at a worker's end must not be mistaken for one.
        const bool hang = std::string_view(marker) == "hang-here";
        const WorkerLimits limits{kThreadPriorityNormal, 256ULL << 20, hang ? 1s : 30s};
        const auto start = Clock::now();
        IsolatedCheck failing({++id, clip, 3, -1, {}}, limits);
        const CheckOutcome outcome = failing.run(nullptr);
        EXPECT_LT(secondsSince(start), seconds);
        EXPECT_EQ(outcome.end, CheckEnd::Failed);
        ASSERT_EQ(outcome.result.issues.size(), 1U);
        EXPECT_EQ(QcIssueList::longLine(outcome.result.issues.at(0)),
                  std::string("File:[Critical] ") + issue);
        EXPECT_EQ(outcome.result.score(), 0);
        EXPECT_EQ(outcome.result.path, clip);

        const std::uint64_t startedBefore = workerPoolStats().started;
        IsolatedCheck next({++id, good, 3, -1, {}}, limits);
        const CheckOutcome after = next.run(nullptr);
        EXPECT_EQ(after.end, CheckEnd::Done);
        EXPECT_EQ(after.result.score(), 5);
        EXPECT_EQ(workerPoolStats().started, startedBefore + 1) << "a fresh worker";
    }
    ::unsetenv(kWorkerFaultVariable);
}

// The stop flag ends a check in the worker as it does in the program's own process; the
// forced abort ends it at once from another thread, also before it has started.
TEST(IsolatedCheck, StopEndsTheCheckAndAbortKillsItsWorker)
{
    const std::string clip = test::testClip("long.ts").string();
    const WorkerLimits limits{kThreadPriorityNormal};

    std::atomic<std::int32_t> stop{0};
    IsolatedCheck stopped({1, clip, 4, -1, {}}, limits);
    std::thread stopper([&] {
        while (stopped.progress() == 0) {
            std::this_thread::sleep_for(1ms);
        }
        stop.store(1);
    });
    const CheckOutcome outcome = stopped.run(&stop);
    stopper.join();
    EXPECT_EQ(outcome.end, CheckEnd::Done);
    EXPECT_EQ(outcome.runCode, 1);
    EXPECT_EQ(outcome.result.facts.hash256.size(), 64U) << "the file is still hashed";

    IsolatedCheck aborted({2, clip, 4, -1, {}}, limits);
    pid_t pid = 0;
    std::thread aborter([&] {
        while ((pid = aborted.workerPid()) == 0 || aborted.progress() == 0) {
            std::this_thread::sleep_for(1ms);
        }
        aborted.abort();
    });
    const auto start = Clock::now();
    const CheckOutcome killed = aborted.run(nullptr);
    aborter.join();
    EXPECT_LT(secondsSince(start), 3.0);
    EXPECT_EQ(killed.end, CheckEnd::Aborted);
    EXPECT_TRUE(killed.result.opened) << "what the open found is kept";
    const std::string state = "/proc/" + std::to_string(pid) + "/stat";
    const auto gone = [&] {
        return !std::filesystem::exists(state) ||
               test::readFile(state).find(") Z ") != std::string::npos;
    };
    const auto until = Clock::now() + 2s;
    while (!gone() && Clock::now() < until) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(gone()) << "the worker is killed";

    IsolatedCheck never({3, clip, 4, -1, {}}, limits);
    never.abort();
    EXPECT_EQ(never.run(nullptr).end, CheckEnd::Aborted);
}

TEST(IsolatedCheck, WithoutAWorkerProgramTheClipSaysSo)
{
    const std::string clip = test::testClip("h264_aac.mp4").string();
    // program, what the issue says after "Check process could not be started: "
    const std::tuple<const char*, std::string> cases[] = {
        {"/nonexistent/tarvoqc-worker", "the program tarvoqc-worker was not found"},
        {"/bin/true", "/bin/true did not start"},
    };
    const std::string worker = std::getenv(kWorkerVariable);
    for (const auto& [program, why] : cases) {
        SCOPED_TRACE(program);
        closeIdleWorkers();
        ::setenv(kWorkerVariable, program, 1);
        IsolatedCheck check({1, clip, 3, -1, {}}, WorkerLimits{});
        const CheckOutcome outcome = check.run(nullptr);
        EXPECT_EQ(outcome.end, CheckEnd::NotStarted);
        ASSERT_EQ(outcome.result.issues.size(), 1U);
        EXPECT_EQ(outcome.result.issues.at(0).text, "Check process could not be started: " + why);
    }
    ::setenv(kWorkerVariable, worker.c_str(), 1);
}

// The worker refuses what checking never needs, where the kernel lets it.
TEST(CheckWorker, SandboxRefusesNetworkAndNewProcesses)
{
    const char* worker = std::getenv(kWorkerVariable);
    ASSERT_NE(worker, nullptr);
    const test::CommandResult probe = test::runCommand({worker, "--probe"});
    ASSERT_EQ(probe.status, 0) << probe.err;
    EXPECT_NE(probe.out.find("no new privileges: on"), std::string::npos) << probe.out;
    if (probe.out.find("system-call filter: on") == std::string::npos) {
        GTEST_SKIP() << "this kernel refuses system-call filters:\n" << probe.out;
    }
    EXPECT_NE(probe.out.find("network socket: Operation not permitted"), std::string::npos)
        << probe.out;
    if (!kSanitized) {
        EXPECT_NE(probe.out.find("new process: Operation not permitted"), std::string::npos)
            << probe.out;
        EXPECT_NE(probe.out.find("memory limit: on"), std::string::npos) << probe.out;
    }
}

} // namespace
} // namespace tarvoqc
