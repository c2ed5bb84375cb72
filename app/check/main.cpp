#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "app/check/checkoptions.h"
#include "app/check/checkoutput.h"
#include "engine/clipchecker.h"
#include "tarvoqc/version.h"

using namespace tarvoqc;

namespace {

constexpr int kExitPass = 0;
constexpr int kExitBelowThreshold = 1;
constexpr int kExitUsage = 2;

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    const auto options = check::parseCheckOptions(args, error);
    if (!options) {
        std::fprintf(stderr, "tarvoqc-check: %s\n", error.c_str());
        return kExitUsage;
    }
    if (options->help) {
        std::fputs(check::checkUsage().c_str(), stdout);
        return kExitPass;
    }
    if (options->version) {
        std::printf("tarvoqc-check (Tarvo Quality Check) %s build %d\n", kVersionText, kVersionBuild);
        return kExitPass;
    }

    if (options->level > 1) {
        std::fprintf(stderr, "tarvoqc-check: check levels 2 and 3 (the read and decode pass) are not "
                             "built yet; use --level 1\n");
        return kExitUsage;
    }

    int below = 0;
    for (const std::string& path : options->paths) {
        ClipChecker checker;
        checker.Open(path, options->level, -1);
        checker.Close();
        const QcResult result = checker.result();
        if (result.score() < options->threshold) {
            ++below;
        }
        if (options->json) {
            std::puts(check::jsonReport(result).dump().c_str());
        } else if (!options->quiet) {
            std::fputs(check::humanReport(result, false).c_str(), stdout);
        }
    }
    const std::size_t count = options->paths.size();
    std::fprintf(options->json ? stderr : stdout,
                 "%zu clip%s checked at level %d: %zu at or above \"%s\", %d below\n", count,
                 count == 1 ? "" : "s", options->level, count - static_cast<std::size_t>(below),
                 scoreText(options->threshold).data(), below);
    return below > 0 ? kExitBelowThreshold : kExitPass;
}
