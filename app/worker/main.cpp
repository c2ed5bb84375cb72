// tarvoqc-worker: checks clips for another TarvoQC program, one after another, over the
// socket that program hands it (see batch/checkworker.h). Not meant to be started by hand,
// except "tarvoqc-worker --probe", which restricts itself as a worker does and tells which
// of the refused operations are really refused on this machine.

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "batch/checkworker.h"
#include "batch/workerprocess.h"

using namespace tarvoqc;

namespace {

template <typename T> bool parseNumber(const char* text, T& value)
{
    const std::string_view view(text);
    const auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
    return error == std::errc() && end == view.data() + view.size();
}

// Tries what a worker must never be able to do and prints one line for each.
int probe()
{
    WorkerConfig config;
    config.memoryLimitBytes = WorkerLimits{}.memoryLimitBytes;
    const WorkerReady ready = restrictWorker(config);
    std::printf("memory limit: %s\nno new privileges: %s\nsystem-call filter: %s\n",
                ready.memoryLimited ? "on" : "off", ready.noNewPrivileges ? "on" : "off",
                ready.syscallFilter ? "on" : "off");
    const auto result = [](const char* what, bool refused, int error) {
        std::printf("%s: %s\n", what, refused ? std::strerror(error) : "allowed");
    };
    const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
    result("network socket", sock < 0, errno);
    if (sock >= 0) {
        ::close(sock);
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    result("new process", child < 0, errno);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--probe") {
        return probe();
    }
    int fd = -1;
    pid_t parent = 0;
    WorkerConfig config;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option(argv[i]);
        const bool ok = option == "--fd"         ? parseNumber(argv[i + 1], fd)
                        : option == "--memory"   ? parseNumber(argv[i + 1], config.memoryLimitBytes)
                        : option == "--priority" ? parseNumber(argv[i + 1], config.priority)
                        : option == "--parent"   ? parseNumber(argv[i + 1], parent)
                                                 : false;
        if (!ok) {
            fd = -1;
            break;
        }
    }
    if (fd < 0 || parent <= 0 || argc % 2 != 1) {
        std::fputs(
            "usage: tarvoqc-worker --fd N --parent PID [--memory BYTES] [--priority N]\n"
            "       tarvoqc-worker --probe\n"
            "Checks clips for the other TarvoQC programs; not meant to be started by hand.\n",
            stderr);
        return kWorkerExitUsage;
    }
    return serveCheckRequests(fd, restrictWorker(config), parent);
}
