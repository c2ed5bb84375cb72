// The reference of bench/isolation.sh: the same checks as tarvoqc-check, run in this
// process the way every check ran before it moved into worker processes (a thread per
// clip, ClipChecker's Open, Run and Close on it, up to --jobs at once, with the decoder
// threads tarvoqc-check chooses). It prints only the
// summary; it exists to weigh what the process boundary costs.
//
//   tarvoqc-inprocess [-jN] [-lN] CLIP... | @LIST   (LIST: a file of paths, one a line)

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/clipchecker.h"
#include "results/checkdefaults.h"

using namespace tarvoqc;

int main(int argc, char** argv)
{
    int jobs = 1;
    int level = kDefaultCheckLevel;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.starts_with("-j")) {
            jobs = std::max(1, std::stoi(arg.substr(2)));
        } else if (arg.starts_with("-l")) {
            level = std::stoi(arg.substr(2));
        } else if (arg.starts_with("@")) {
            std::ifstream list(arg.substr(1));
            for (std::string line; std::getline(list, line);) {
                paths.push_back(line);
            }
        } else {
            paths.push_back(arg);
        }
    }
    // The decoder threads tarvoqc-check gives each check: the cores divided among the clips
    // checked at once.
    ClipCheckOptions options;
    const std::size_t cores = std::max(1U, std::thread::hardware_concurrency());
    const std::size_t running =
        std::clamp<std::size_t>(paths.size(), 1, static_cast<std::size_t>(jobs));
    options.decoderThreads = static_cast<int>(std::max<std::size_t>(1, cores / running));
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> below{0};
    std::vector<QcResult> results(paths.size());
    std::vector<std::thread> lanes;
    for (int lane = 0; lane < jobs; ++lane) {
        lanes.emplace_back([&] {
            for (std::size_t i; (i = next.fetch_add(1)) < paths.size();) {
                // One thread per clip, as each check's runner had.
                std::thread([&, i] {
                    const std::atomic<std::int32_t> stop{0};
                    ClipChecker checker;
                    checker.setOptions(options);
                    checker.setInterruptFlag(&stop);
                    if (checker.Open(paths[i], level, -1)) {
                        checker.Run(&stop);
                    }
                    checker.Close();
                    results[i] = checker.result();
                    below += results[i].score() < 3 ? 1 : 0;
                }).join();
            }
        });
    }
    for (std::thread& lane : lanes) {
        lane.join();
    }
    std::printf("%zu clips checked in process at level %d: %zu below\n", paths.size(), level,
                below.load());
    return 0;
}
