// tarvoqc: the window program. Clips and .qcin job files given on the command line are
// checked at once and the window closes by itself when they are done; with none, the
// operator adds clips and starts the checks.

#include <QApplication>
#include <QGuiApplication>
#include <QSocketNotifier>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "app/tarvoqc/medialibraries.h"
#include "batch/resultdocument.h"
#include "results/jobfile.h"
#include "results/textcodec.h"
#include "settings/profilestore.h"
#include "ui/controlkit.h"
#include "ui/mainwindow.h"
#include "ui/stopsignals.h"

using namespace tarvoqc;

namespace {

// The exit status when the command line could not be carried out in full: a job file that
// could not be read, a result document refused or not written, nothing to check in a window
// that nobody can close.
constexpr int kExitFailure = 2;

// The locale's number separators, kept for number texts meant for people.
std::string g_decimalPoint = ".";
std::string g_thousandsSeparator;

// Start-up code, run before any other thread exists: the locale and the environment are
// set here and only read afterwards.
// NOLINTBEGIN(concurrency-mt-unsafe)
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
// NOLINTEND(concurrency-mt-unsafe)

// One command-line token as start-up will apply it.
struct Token
{
    std::string text;
    bool job = false;
    bool jobRead = false; // the job file parsed and has the root "Tarvo_QC"
    std::string why;      // why not
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
            token.jobRead = readJobFile(token.text, token.parsed, &token.why);
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
    // a server can run job files. No other thread exists yet.
    // NOLINTBEGIN(concurrency-mt-unsafe)
    if (std::getenv("QT_QPA_PLATFORM") == nullptr && (anyHidden(tokens) || !haveDisplay())) {
        if (!haveDisplay() && !anyHidden(tokens)) {
            std::fprintf(stderr, "tarvoqc: no display; the window runs offscreen\n");
        }
        ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    }
    // NOLINTEND(concurrency-mt-unsafe)
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
    windowOptions.profile = checkSettings.profile;
    if (!checkSettings.profileError.empty()) {
        std::fprintf(stderr, "tarvoqc: the delivery profile is not used: %s\n",
                     checkSettings.profileError.c_str());
    }
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

    // A job that could not be read is named, as tarvoqc-check names it; the run goes on
    // with the other clips, but the document it would write lacks the job's clips, so the
    // earlier one stays as it was.
    bool inputsRead = true;
    std::vector<std::string> inputs;
    for (const Token& token : tokens) {
        inputs.push_back(token.text);
        if (token.job && !token.jobRead) {
            std::fprintf(stderr, "tarvoqc: job file '%s' %s; its clips are skipped\n",
                         escapeControl(token.text).c_str(), token.why.c_str());
            inputsRead = false;
        }
    }
    const std::string documentPath = lastWasJob && inputsRead ? jobOutput : std::string();
    if (!documentPath.empty()) {
        if (const std::string why = resultDocumentRefusal(documentPath, inputs, window.taskList());
            !why.empty()) {
            std::fprintf(stderr, "tarvoqc: will not write the result document to '%s': %s\n",
                         escapeControl(documentPath).c_str(), why.c_str());
            return kExitFailure;
        }
    }
    // A window that is not shown (Hide, or no screen at all) with nothing to check could only
    // be closed by a signal, and nobody would know why it waits.
    const QString platform = QGuiApplication::platformName();
    const bool shown = !anyHidden(tokens) && platform != "offscreen" && platform != "minimal";
    if (window.commandLineMode() && window.taskList().empty() && !shown) {
        std::fprintf(stderr, "tarvoqc: no clips to check and no window that could be closed; "
                             "no result document is written\n");
        return kExitFailure;
    }

    window.runModal();

    if (window.commandLineMode() && !documentPath.empty() &&
        !saveResultDocument(documentPath, window.taskList())) {
        std::fprintf(stderr, "tarvoqc: cannot write the result document '%s'\n",
                     escapeControl(documentPath).c_str());
        return kExitFailure;
    }
    return inputsRead ? 0 : kExitFailure;
}
