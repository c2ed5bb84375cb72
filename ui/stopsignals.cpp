#include "ui/stopsignals.h"

#include <QSocketNotifier>
#include <csignal>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

namespace tarvoqc {

namespace {

int g_signalPipe[2] = {-1, -1};

void writeStopByte(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

} // namespace

bool haveDisplay()
{
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

void installStopSignals()
{
    if (g_signalPipe[0] >= 0 ||
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = writeStopByte;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void onStopSignal(QObject* context, std::function<void()> onStop)
{
    if (g_signalPipe[0] < 0) {
        return;
    }
    auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, context);
    QObject::connect(notifier, &QSocketNotifier::activated, context, [onStop = std::move(onStop)] {
        char byte = 0;
        [[maybe_unused]] const auto got = ::read(g_signalPipe[0], &byte, 1);
        onStop();
    });
}

} // namespace tarvoqc
