// tarvoqc-watchd: the watch job without a window, for servers and service managers. It
// checks every clip that arrives in the folder of section [Job00] of the settings file and
// moves GOOD and BAD clips, until SIGTERM or SIGINT (SIGHUP reads the settings again).

#include <cstdio>
#include <string>
#include <string_view>

#include "batch/watchservice.h"
#include "settings/profilestore.h"
#include "tarvoqc/version.h"

using namespace tarvoqc;

namespace {

constexpr const char* kUsage =
    "Usage: tarvoqc-watchd [--once]\n"
    "Watches the folder of section [Job00] of TarvoQC.ini: checks every clip that arrives\n"
    "and moves GOOD and BAD clips into their folders, until SIGTERM or SIGINT (SIGHUP reads\n"
    "the settings file again). What it does goes into the daily log (LogsQC/ beside the\n"
    "settings file).\n"
    "\n"
    "      --once       one pass (after finishing what an interrupted run left), then exit\n"
    "      --version    print the version\n"
    "  -h, --help       print this help\n"
    "\n"
    "Exit status: 0, or 2 for a usage error.\n";

} // namespace

int main(int argc, char** argv)
{
    bool once = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--once") {
            once = true;
        } else if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--version") {
            std::printf("tarvoqc-watchd (Tarvo Quality Check) %s build %d\n", kVersionText,
                        kVersionBuild);
            return 0;
        } else {
            std::fprintf(stderr, "tarvoqc-watchd: unknown argument '%s' (see --help)\n",
                         std::string(arg).c_str());
            return 2;
        }
    }
    const std::string settings = settingsPath();
    WatchService service(settings, logsFolder());
    const WatchJobSettings job = service.job().settings();
    if (job.enabled && !job.sourceFolder.empty()) {
        std::fprintf(stderr, "tarvoqc-watchd: watching %s; the daily log is in %s\n",
                     job.sourceFolder.c_str(), logsFolder().c_str());
    } else {
        std::fprintf(stderr,
                     "tarvoqc-watchd: the watch job is switched off (section [Job00] of %s: "
                     "Enabled=1 and Source.Folder turn it on)\n",
                     settings.c_str());
    }
    return service.run(once);
}
