// tarvoqc-hashreader-bench FILE [WORK_NS_PER_KIB [RUNS]]
// A stand-in for the decode pass: reads FILE in 32 KiB chunks through a descriptor of its
// own (as the demuxer does), spends WORK_NS_PER_KIB nanoseconds of busy CPU per KiB read
// (the decoding) and raises the hash reader's target after each chunk. Each run is made
// without hashing, with the Inline reader and with the Background reader; the medians of
// RUNS runs are printed (wall time, and CPU time of all threads), and the two readers'
// digests are compared.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "engine/hashreader.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kChunk = 32 * 1024;

struct Outcome
{
    double seconds = -1;
    double cpuSeconds = 0; // all threads of the process, user and system
    tarvoqc::FileDigest digest = {};
};

double cpuNow()
{
    rusage usage = {};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// mode: 0 no hashing, 1 Inline, 2 Background.
Outcome decodePass(const char* path, int mode, long workNsPerKib)
{
    Outcome outcome;
    const int demuxFd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (demuxFd < 0) {
        return outcome;
    }
    const auto start = Clock::now();
    const double cpuStart = cpuNow();
    std::unique_ptr<tarvoqc::HashReader> reader;
    if (mode != 0) {
        reader = tarvoqc::HashReader::open(path, mode == 1 ? tarvoqc::HashReader::Mode::Inline
                                                           : tarvoqc::HashReader::Mode::Background);
        if (reader == nullptr) {
            ::close(demuxFd);
            return outcome;
        }
    }
    std::vector<char> chunk(kChunk);
    std::int64_t position = 0;
    for (;;) {
        const ssize_t got = ::read(demuxFd, chunk.data(), chunk.size());
        if (got <= 0) {
            break;
        }
        position += got;
        const auto until = Clock::now() + std::chrono::nanoseconds(workNsPerKib * got / 1024);
        while (Clock::now() < until) {
        }
        if (reader != nullptr) {
            reader->advanceTo(position);
        }
    }
    if (reader != nullptr) {
        outcome.digest = reader->finish();
    }
    reader.reset(); // joins the background thread, so its time is counted
    outcome.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    outcome.cpuSeconds = cpuNow() - cpuStart;
    ::close(demuxFd);
    return outcome;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE [WORK_NS_PER_KIB [RUNS]]\n", argv[0]);
        return 2;
    }
    const char* path = argv[1];
    const long work = argc > 2 ? std::strtol(argv[2], nullptr, 10) : 0;
    const int runs = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;

    static const char* const kNames[] = {"no hashing", "inline", "background"};
    std::vector<double> times[3];
    std::vector<double> cpuTimes[3];
    tarvoqc::FileDigest digests[3] = {};
    for (int run = 0; run < runs; ++run) {
        for (int mode = 0; mode < 3; ++mode) {
            const Outcome o = decodePass(path, mode, work);
            if (o.seconds < 0) {
                std::perror(path);
                return 1;
            }
            times[mode].push_back(o.seconds);
            cpuTimes[mode].push_back(o.cpuSeconds);
            digests[mode] = o.digest;
        }
    }
    std::printf("decode work %ld ns/KiB, median of %d runs\n", work, runs);
    std::printf("  %-11s %8s %8s\n", "", "wall s", "cpu s");
    for (int mode = 0; mode < 3; ++mode) {
        std::printf("  %-11s %8.3f %8.3f\n", kNames[mode], median(times[mode]),
                    median(cpuTimes[mode]));
    }
    if (digests[1] != digests[2]) {
        std::fprintf(stderr, "inline and background digests differ\n");
        return 1;
    }
    return 0;
}
