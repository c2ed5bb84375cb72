// tarvoqc-watch: the watch job with its tray icon. It starts the job at once and runs until
// "Close and Exit" in the tray menu, SIGTERM or SIGINT. Without a tray (or without any
// display) it runs on without the icon; the daily log is then its only voice.

#include <QApplication>
#include <QSocketNotifier>
#include <QSystemTrayIcon>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <sys/socket.h>
#include <unistd.h>

#include "batch/watchservice.h"
#include "settings/profilestore.h"
#include "ui/controlkit.h"
#include "ui/stopsignals.h"
#include "ui/watchjobwindow.h"

using namespace tarvoqc;

namespace {

constexpr const char* kUsage =
    "Usage: tarvoqc-watch [--setup | --once]\n"
    "Runs the watch job of section [Job00] of TarvoQC.ini with an icon in the system tray\n"
    "(its menu: \"Job setup\", \"Close and Exit\"): checks every clip that arrives in the\n"
    "watched folder and moves GOOD and BAD clips, until \"Close and Exit\", SIGTERM or\n"
    "SIGINT. Servers without a desktop run tarvoqc-watchd instead.\n"
    "\n"
    "      --setup      show the \"Setup Watch Job\" dialog only; OK writes the settings\n"
    "      --once       one pass without a window, then exit (for cron and scripts)\n"
    "  -h, --help       print this help\n"
    "\n"
    "Exit status: 0, or 2 for a usage error.\n";

} // namespace

int main(int argc, char** argv)
{
    // Only these words are options; Qt is given none of the arguments.
    std::string_view mode;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if ((arg != "--setup" && arg != "--once") || !mode.empty()) {
            std::fprintf(stderr, "tarvoqc-watch: unexpected argument '%s' (see --help)\n", argv[i]);
            return 2;
        }
        mode = arg;
    }
    if (mode == "--once") {
        WatchService service(settingsPath(), logsFolder());
        return service.run(true);
    }
    if (std::getenv("QT_QPA_PLATFORM") == nullptr && !haveDisplay()) {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    installStopSignals();
    int qtArgc = 1;
    QApplication app(qtArgc, argv);
    if (mode == "--setup") {
        ProfileStore store(settingsPath());
        setKitSettings(&store);
        WatchJobSetupDialog setup(loadWatchJobSettings(settingsPath()));
        onStopSignal(&setup, [&setup] { setup.done(QDialog::Rejected); });
        if (setup.exec() == QDialog::Accepted) {
            saveWatchJobSettings(settingsPath(), setup.settings());
        }
        return 0;
    }
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
