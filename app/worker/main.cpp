// tarvoqc-worker: checks clips for another TarvoQC program, one after another, over the
// socket that program hands it (see batch/checkworker.h). Not meant to be started by hand,
// except "tarvoqc-worker --probe", which restricts itself as a worker does and tells which
// of the refused operations are really refused on this machine, and
// "tarvoqc-worker --picture CLIP SECONDS WIDTH", which writes one small JPEG picture of the
// clip at SECONDS from its start to standard output, restricted as a check is (the window
// shows it beside the selected issue).

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "batch/checkworker.h"
#include "batch/workerprocess.h"
#include "engine/framegrabber.h"

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

// One picture to standard output: 0 when written, 1 when the clip gave none, 64 for a
// bad command line.
int picture(const char* path, const char* secondsText, const char* widthText)
{
    double seconds = 0;
    int width = 0;
    if (!parseNumber(secondsText, seconds) || !parseNumber(widthText, width) || width < 16 ||
        width > 1920) {
        std::fputs("usage: tarvoqc-worker --picture CLIP SECONDS WIDTH (16..1920)\n", stderr);
        return kWorkerExitUsage;
    }
    restrictPictureReader();
    FrameGrabber grabber;
    std::string why;
    if (!grabber.open(path, why)) {
        std::fprintf(stderr, "tarvoqc-worker: no picture: %s\n", why.c_str());
        return 1;
    }
    const std::string jpeg = grabber.grab(seconds, width);
    if (jpeg.empty()) {
        std::fputs("tarvoqc-worker: no picture: no frame could be decoded there\n", stderr);
        return 1;
    }
    return std::fwrite(jpeg.data(), 1, jpeg.size(), stdout) == jpeg.size() &&
                   std::fflush(stdout) == 0
               ? 0
               : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--probe") {
        return probe();
    }
    if (argc == 5 && std::string_view(argv[1]) == "--picture") {
        return picture(argv[2], argv[3], argv[4]);
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
