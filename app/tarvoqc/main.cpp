// tarvoqc: the window program. Clips and .qcin job files given on the command line are
// checked at once and the window closes by itself when they are done; with none, the
// operator adds clips and starts the checks.

#include <QApplication>
#include <QSocketNotifier>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "app/tarvoqc/medialibraries.h"
#include "results/jobfile.h"
#include "results/resultfile.h"
#include "results/xmlnode.h"
#include "settings/profilestore.h"
#include "ui/controlkit.h"
#include "ui/mainwindow.h"
#include "ui/stopsignals.h"

using namespace tarvoqc;

namespace {

// The locale's number separators, kept for number texts meant for people.
std::string g_decimalPoint = ".";
std::string g_thousandsSeparator;

void takeLocale()
{
    std::setlocale(LC_ALL, "");
    if (const lconv* conv = std::localeconv()) {
        g_decimalPoint = conv->decimal_point != nullptr ? conv->decimal_point : ".";
        g_thousandsSeparator = conv->thousands_sep != nullptr ? conv->thousands_sep : "";
    }
    // Numbers in result documents and logs are read by programs: they never follow the
    // user's locale.
    std::setlocale(LC_NUMERIC, "C");
}

// One command-line token as start-up will apply it.
struct Token
{
    std::string text;
    bool job = false;
    bool jobRead = false; // the job file parsed
    Job parsed;
};

std::vector<Token> readTokens(int argc, char** argv)
{
    std::vector<Token> tokens;
    for (int i = 1; i < argc; ++i) {
        Token token;
        token.text = argv[i];
        if (token.text.empty()) {
            continue; // an empty argument is no token
        }
        token.job = isJobFile(token.text);
        if (token.job) {
            token.jobRead = readJobFile(token.text, token.parsed);
        }
        tokens.push_back(std::move(token));
    }
    return tokens;
}

bool anyHidden(const std::vector<Token>& tokens)
{
    for (const Token& token : tokens) {
        if (token.jobRead && token.parsed.hide != 0) {
            return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<Token> tokens = readTokens(argc, argv);
    // A hidden job, or a machine without a display, runs on the offscreen platform so that
    // a server can run job files.
    if (std::getenv("QT_QPA_PLATFORM") == nullptr && (anyHidden(tokens) || !haveDisplay())) {
        if (!haveDisplay() && !anyHidden(tokens)) {
            std::fprintf(stderr, "tarvoqc: no display; the window runs offscreen\n");
        }
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    installStopSignals();
    // Every argument is a clip or a job file: Qt is given none of them, so that a clip named
    // like one of its options (-reverse, -style) is never taken as one.
    int qtArgc = 1;
    QApplication app(qtArgc, argv);
    takeLocale();

    ProfileStore settings(settingsPath());
    setKitSettings(&settings);

    if (!CheckMediaLibraries(nullptr, mediaLibraryVersions())) {
        return 0;
    }
    // The media libraries register their codecs and formats by themselves.

    // The settings say how deep the window checks.
    const CheckSettings checkSettings = loadCheckSettings(settings.name());
    MainWindowOptions windowOptions;
    windowOptions.level = checkSettings.level;
    windowOptions.check = checkSettings.options;
    windowOptions.worker = checkSettings.worker;
    MainWindow window(windowOptions);
    // done() ends the modal run whether the window is shown or hidden.
    onStopSignal(&window, [&window] { window.done(QDialog::Rejected); });

    bool lastWasJob = false;
    std::string jobOutput;
    for (const Token& token : tokens) {
        if (token.job) {
            lastWasJob = true;
            jobOutput = jobResultPath(token.text);
            if (token.jobRead) {
                if (token.parsed.hide != 0) {
                    window.setHide(true);
                }
                for (const JobClip& clip : token.parsed.clips) {
                    window.taskList().AppendFromJob(clip.clipPath);
                }
            }
        } else {
            lastWasJob = false;
            window.taskList().AppendFromCommandLine(token.text);
        }
        window.setCommandLineMode(true);
    }

    window.runModal();

    if (window.commandLineMode() && lastWasJob) {
        const TaskList& list = window.taskList();
        std::vector<ResultDocumentEntry> entries;
        entries.reserve(list.size());
        for (std::size_t i = 0; i < list.size(); ++i) {
            entries.push_back({list.item(i).path(), list.item(i).result()});
        }
        XmlNode document;
        buildResultDocument(document, entries);
        if (!document.Save(jobOutput)) {
            std::fprintf(stderr, "tarvoqc: cannot write the result document '%s'\n",
                         jobOutput.c_str());
        }
    }
    return 0;
}
