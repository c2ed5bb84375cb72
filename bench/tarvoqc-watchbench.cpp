// Runs a watch job until it has moved a number of clips, for bench/watch.sh.
//   tarvoqc-watchbench COUNT SOURCE GOOD BAD LOGS
// The job checks every clip of SOURCE ("Any clip": every checked clip is GOOD) and moves it
// to GOOD, writing its daily log into LOGS. Prints "ready" once the first pass has ended
// (the job is idle and watching), then "moved <n> seconds <s>" when COUNT clips have been
// moved, <s> counted from "ready". Exits 0 then, 1 when an hour passes first.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "batch/watchjob.h"
#include "results/dailylog.h"

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::fprintf(stderr, "usage: %s COUNT SOURCE GOOD BAD LOGS\n", argv[0]);
        return 2;
    }
    const auto count = std::strtoull(argv[1], nullptr, 10);
    tarvoqc::DailyLog log;
    log.setFolder(argv[5], "QC ");
    log.setEnabled(1);
    tarvoqc::WatchJob job(&log);
    tarvoqc::WatchJobSettings settings;
    settings.enabled = true;
    settings.sourceFolder = argv[2];
    settings.goodFolder = argv[3];
    settings.badFolder = argv[4];
    settings.moveGood = true;
    settings.moveBad = true;
    settings.goodThreshold = tarvoqc::kWatchAnyClip;
    job.setSettings(settings);
    if (!job.Start() ||
        !job.waitForStatus([](const auto& s) { return s.passes >= 1; }, std::chrono::hours(1))) {
        return 1;
    }
    const auto ready = std::chrono::steady_clock::now();
    std::printf("ready\n");
    std::fflush(stdout);
    if (!job.waitForStatus([&](const auto& s) { return s.moved >= count; },
                           std::chrono::hours(1))) {
        return 1;
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - ready;
    std::printf("moved %llu seconds %.3f\n", static_cast<unsigned long long>(job.status().moved),
                elapsed.count());
    return 0;
}
