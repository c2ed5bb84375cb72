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
#include "ui/stopsignals.h"
#include "ui/watchjobwindow.h"

using namespace tarvoqc;

int main(int argc, char** argv)
{
    if (std::getenv("QT_QPA_PLATFORM") == nullptr && !haveDisplay()) {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    installStopSignals();
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
        onStopSignal(&window, [&window] { window.closeDialog(); });
        // New settings from "Job setup" reach the running worker at its next pass.
        QObject::connect(&window, &WatchJobWindow::setupAccepted, &window,
                         [&window] { window.command(kIdTest01); });
        QObject::connect(&window, &QDialog::finished, &app, &QApplication::quit);
        window.command(kIdTest01);
        status = QApplication::exec();
    }
    return status;
}
