// tarvoqc-watch: the watch job with its tray icon. It starts the job at once and runs until
// "Close and Exit" in the tray menu, SIGTERM or SIGINT. Without a tray (or without any
// display) it runs on without the icon; the daily log is then its only voice.

#include <QApplication>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

#include "settings/profilestore.h"
#include "ui/controlkit.h"
#include "ui/watchjobwindow.h"

using namespace tarvoqc;

namespace {

int g_signalPipe[2] = {-1, -1};

void onStopSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

bool haveDisplay()
{
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 != nullptr && *x11 != '\0') || (wayland != nullptr && *wayland != '\0');
}

} // namespace

int main(int argc, char** argv)
{
    if (std::getenv("QT_QPA_PLATFORM") == nullptr && !haveDisplay()) {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) == 0) {
        struct sigaction action = {};
        action.sa_handler = onStopSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    ProfileStore settings(settingsPath());
    setKitSettings(&settings);

    int status = 0;
    {
        WatchJobWindow window;
        if (window.trayIcon() == nullptr) {
            std::fprintf(stderr,
                         "tarvoqc-watch: no system tray here; running without the icon. "
                         "The daily log is in %s\n",
                         logsFolder().c_str());
        }
        QSocketNotifier stop(g_signalPipe[0], QSocketNotifier::Read);
        QObject::connect(&stop, &QSocketNotifier::activated, &window, [&window] {
            char byte = 0;
            [[maybe_unused]] const auto got = ::read(g_signalPipe[0], &byte, 1);
            window.closeDialog();
        });
        // New settings from "Job setup" reach the running worker at its next pass.
        QObject::connect(&window, &WatchJobWindow::setupAccepted, &window,
                         [&window] { window.command(kIdTest01); });
        QObject::connect(&window, &QDialog::finished, &app, &QApplication::quit);
        window.command(kIdTest01);
        status = QApplication::exec();
    }
    return status;
}
