#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <sys/ioctl.h>
#include <unistd.h>

#include "app/check/checkoptions.h"
#include "app/check/checkoutput.h"
#include "app/common/standardoutput.h"
#include "batch/cores.h"
#include "batch/deliveryprofile.h"
#include "batch/resultdocument.h"
#include "batch/runcontroller.h"
#include "batch/tasklist.h"
#include "results/jobfile.h"
#include "results/qcissue.h"
#include "tarvoqc/version.h"

using namespace tarvoqc;

namespace {

constexpr int kExitPass = 0;
constexpr int kExitBelowThreshold = 1;
constexpr int kExitUsage = 2;
// The next clip starts as soon as a check ends (RunController::waitForRunnerEnd); this is
// only how often the progress bar is redrawn while checks run.
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

// Fills the list from the command line's paths: a job file adds its clips (each once), a
// folder adds the clips found in it (each once), anything else is checked as a clip,
// whatever its name. Job files that cannot be read, or are no job (their root element is
// not "Tarvo_QC"), are named on standard error and make the run an input error; so are
// folders that cannot be listed. Returns false after any such error.
bool fillTaskList(const std::vector<std::string>& paths, TaskList& list)
{
    bool ok = true;
    for (const std::string& path : paths) {
        std::error_code ec;
        if (isJobFile(path)) {
            Job job;
            if (std::string why; !readJobFile(path, job, &why)) {
                std::fprintf(stderr, "tarvoqc-check: job file '%s' %s; its clips are skipped\n",
                             check::escapeControl(path).c_str(), why.c_str());
                ok = false;
            }
            for (const JobClip& clip : job.clips) {
                list.AppendFromJob(clip.clipPath);
            }
        } else if (std::filesystem::is_directory(path, ec)) {
            std::string folder = path;
            while (folder.size() > 1 && folder.back() == '/') {
                folder.pop_back();
            }
            std::vector<std::string> found;
            std::vector<std::string> unreadable;
            list.ScanFolder(folder, found, &unreadable);
            for (const std::string& clip : found) {
                list.AppendFromJob(clip);
            }
            for (const std::string& skipped : unreadable) {
                std::fprintf(stderr, "tarvoqc-check: folder '%s' cannot be read; it is skipped\n",
                             check::escapeControl(skipped).c_str());
                ok = false;
            }
        } else {
            list.AppendFromCommandLine(path);
        }
    }
    return ok;
}

// Where the result document goes: --output when given; otherwise, as in the window
// program, beside the job file when the last path is a job file; otherwise nowhere.
std::string resultDocumentPath(const check::CheckOptions& options)
{
    if (!options.output.empty()) {
        return options.output;
    }
    if (!options.paths.empty() && isJobFile(options.paths.back())) {
        return jobResultPath(options.paths.back());
    }
    return {};
}

// Characters of a UTF-8 text: every byte that is not a continuation byte starts one.
std::size_t utf8Length(std::string_view text)
{
    std::size_t chars = 0;
    for (const char c : text) {
        chars += (static_cast<unsigned char>(c) & 0xC0) != 0x80 ? 1 : 0;
    }
    return chars;
}

// The width of the terminal on standard error: its window size, else $COLUMNS, else 80.
std::size_t terminalColumns()
{
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    // The environment is read, never changed, once the checks run.
    if (const char* columns = std::getenv("COLUMNS")) { // NOLINT(concurrency-mt-unsafe)
        char* end = nullptr;
        const long value = std::strtol(columns, &end, 10);
        if (end != columns && *end == '\0' && value > 0 && value < 10000) {
            return static_cast<std::size_t>(value);
        }
    }
    return 80;
}

// One line on standard error, redrawn in place: done/total, the mean progress of the
// running checks, and the clip being checked. It is fitted to the terminal's width (asked
// at every redraw, so a resized window is followed) and never fills its last column: a
// line that wraps would make every redraw a new line.
class ProgressBar
{
public:
    explicit ProgressBar(bool enabled) : m_enabled(enabled) {}

    void show(std::size_t done, std::size_t total, std::int32_t progress, const std::string& path)
    {
        if (!m_enabled) {
            return;
        }
        constexpr std::size_t kMaxBar = 30;
        constexpr std::size_t kMaxName = 40;
        const double fraction = total == 0 ? 1.0
                                           : (static_cast<double>(done) + progress / 100000.0) /
                                                 static_cast<double>(total);
        const std::string counts = std::to_string(static_cast<int>(fraction * 100)) + "% " +
                                   std::to_string(done) + "/" + std::to_string(total);
        const std::size_t width = terminalColumns() - 1;
        // "[bar] " + "100% 3/10" + " name": the bar and the name share what the counts leave.
        const std::size_t room = width > counts.size() + 1 ? width - counts.size() - 1 : 0;
        std::size_t bar = std::min(kMaxBar, room / 2 > 3 ? room / 2 - 3 : 0);
        if (bar < 5) {
            bar = 0; // too narrow for a bar: the counts and the name only
        }
        const std::size_t barChars = bar > 0 ? bar + 3 : 0;
        const std::size_t nameRoom = std::min(kMaxName, room - std::min(room, barChars));
        std::string line;
        if (bar > 0) {
            const auto filled = static_cast<std::size_t>(fraction * static_cast<double>(bar));
            line.reserve(bar + 3);
            line += '[';
            line.append(std::min(filled, bar), '#');
            line.resize(bar + 1, '-');
            line += "] ";
        }
        line += counts;
        // Cut and padded by characters, never inside one.
        std::string name = check::escapeControl(std::filesystem::path(path).filename().string());
        if (nameRoom >= 4) {
            if (utf8Length(name) > nameRoom) {
                name = cutUtf8(name, nameRoom - 3) + "...";
            }
            line += ' ';
            line += name;
        }
        std::size_t drawn = utf8Length(line);
        if (drawn > width) {
            line = cutUtf8(line, width);
            drawn = width;
        }
        // Spaces over what the last, longer line left.
        const std::size_t pad = m_drawn > drawn ? m_drawn - drawn : 0;
        std::fprintf(stderr, "\r%s%*s", line.c_str(), static_cast<int>(pad), "");
        std::fflush(stderr);
        m_drawn = std::max(drawn, m_drawn);
        m_shown = true;
    }

    void clear()
    {
        if (m_shown) {
            std::fprintf(stderr, "\r%*s\r", static_cast<int>(m_drawn), "");
            std::fflush(stderr);
            m_shown = false;
            m_drawn = 0;
        }
    }

private:
    bool m_enabled;
    bool m_shown = false;
    std::size_t m_drawn = 0; // characters the longest line since the last clear took
};

// SIGINT and SIGTERM ask the run to stop; the main loop sees it within one progress
// interval. A second signal ends the checker at once (the handler is reset by the first).
std::atomic<int> g_stopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onStopSignal(int signal)
{
    g_stopSignal.store(signal);
}

void installStopSignals()
{
    struct sigaction action = {};
    action.sa_handler = onStopSignal;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

// Prints through the checked standard output; the summary and the messages go to
// standard error and need no such care.
void print(const std::string& text)
{
    writeStandardOutput(text);
}

// One line of two columns, the first 20 characters wide.
std::string columns(const std::string& first, const std::string& second)
{
    std::string line = first;
    line.resize(std::max<std::size_t>(line.size(), 20), ' ');
    return line + " " + second + "\n";
}

// --list-profiles: name, description and file of every profile found, one a line; the
// files that do not load are named on standard error (exit status 2).
int listProfiles()
{
    std::vector<std::string> errors;
    const std::vector<DeliveryProfile> profiles = listDeliveryProfiles(&errors);
    bool technical = false;
    for (const DeliveryProfile& p : profiles) {
        const std::string name = std::filesystem::path(p.file).stem().string();
        technical = technical || name == "technical";
        print(columns(check::escapeControl(name),
                      check::escapeControl(p.description.empty() ? p.name : p.description)) +
              columns("", check::escapeControl(p.file)));
    }
    if (!technical) {
        print(columns("technical", "no format rules, loudness as information (built in)"));
    }
    for (const std::string& error : errors) {
        std::fprintf(stderr, "tarvoqc-check: %s\n", check::escapeControl(error).c_str());
    }
    const bool written = closeStandardOutput("tarvoqc-check");
    return errors.empty() && written ? kExitPass : kExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    auto options = check::parseCheckOptions(args, error);
    if (!options) {
        std::fprintf(stderr, "tarvoqc-check: %s\n", error.c_str());
        return kExitUsage;
    }
    if (options->help || options->version) {
        if (options->help) {
            print(check::checkUsage());
        } else {
            print("tarvoqc-check (Tarvo Quality Check) " + std::string(kVersionText) + " build " +
                  std::to_string(kVersionBuild) + "\n");
        }
        return closeStandardOutput("tarvoqc-check") ? kExitPass : kExitUsage;
    }
    for (const std::string& listName : options->filesFrom) {
        if (std::string why; !readPathList(listName, options->nulSeparated, options->paths, why)) {
            std::fprintf(stderr, "tarvoqc-check: cannot read the list of clips '%s': %s\n",
                         check::escapeControl(listName).c_str(), why.c_str());
            return kExitUsage;
        }
    }

    if (options->listProfiles) {
        return listProfiles();
    }
    // A profile that does not load stops the run before anything is checked: a clip graded
    // by half a profile would pass what the delivery does not.
    std::shared_ptr<const DeliveryProfile> profile;
    if (!options->profile.empty()) {
        std::string why;
        auto found = findDeliveryProfile(options->profile, why);
        if (!found) {
            std::fprintf(stderr, "tarvoqc-check: %s\n", check::escapeControl(why).c_str());
            return kExitUsage;
        }
        profile = std::make_shared<const DeliveryProfile>(std::move(*found));
    }

    TaskList list;
    const bool inputsRead = fillTaskList(options->paths, list);
    // A run that could not read all its inputs writes no result document: the one it would
    // write lacks their clips, and the earlier one (beside a job file, say) stays as it was.
    const std::string documentPath = inputsRead ? resultDocumentPath(*options) : std::string();
    if (list.empty() && documentPath.empty()) {
        std::fprintf(stderr, "tarvoqc-check: no clips found in the given paths\n");
        return kExitUsage;
    }
    if (!documentPath.empty()) {
        if (const std::string why = resultDocumentRefusal(documentPath, options->paths, list);
            !why.empty()) {
            std::fprintf(stderr, "tarvoqc-check: will not write the result document to '%s': %s\n",
                         check::escapeControl(documentPath).c_str(), why.c_str());
            return kExitUsage;
        }
    }

    RunControllerOptions runOptions;
    runOptions.level = options->level;
    runOptions.decoderThreadOption = -1;
    // A script or a server job runs the checker in the foreground; `nice` lowers it.
    runOptions.priority = kThreadPriorityNormal;
    // The processors this process may use (its affinity and its control group's quota),
    // not those of the machine.
    const unsigned cores = usableCores();
    runOptions.maxRunners =
        options->jobs > 0 ? static_cast<std::size_t>(options->jobs) : std::size_t{cores};
    // --jobs spreads clips over the cores; the cores that no clip takes go to the decoders
    // of the clips that run, so that a single clip still uses the whole machine.
    const std::size_t running = std::clamp<std::size_t>(list.size(), 1, runOptions.maxRunners);
    runOptions.check.decoderThreads =
        options->threads > 0 ? options->threads
                             : static_cast<int>(std::max<std::size_t>(1, cores / running));
    runOptions.check.loudnessTarget = options->loudnessTarget;
    runOptions.check.loudnessTolerance = options->loudnessTolerance;
    runOptions.check.truePeakLimit = options->truePeakLimit;
    runOptions.memoryLimitBytes = static_cast<std::uint64_t>(options->maxMemoryMiB) * 1024 * 1024;
    runOptions.hangTimeout = std::chrono::seconds(options->hangTimeout);
    runOptions.check.loudnessRule = options->loudnessRule;
    if (profile != nullptr) {
        applyProfileOptions(*profile, runOptions.check);
        // Limits given on the command line hold over the profile's.
        for (const auto& [given, field, value] :
             {std::tuple{options->targetGiven, &ClipCheckOptions::loudnessTarget,
                         options->loudnessTarget},
              std::tuple{options->toleranceGiven, &ClipCheckOptions::loudnessTolerance,
                         options->loudnessTolerance},
              std::tuple{options->truePeakGiven, &ClipCheckOptions::truePeakLimit,
                         options->truePeakLimit}}) {
            if (given) {
                runOptions.check.*field = value;
            }
        }
        runOptions.profile = profile;
    }
    installStopSignals();
    auto controller = std::make_unique<RunController>(list, runOptions);
    controller->CheckAll(); // an empty list (a job without clips) stays idle

    ProgressBar progress(!options->quiet && ::isatty(STDERR_FILENO) != 0);
    std::size_t printed = 0;
    std::size_t checked = 0;
    std::size_t below = 0;
    // Prints the results that are due in list order from the row printed on; with
    // skipUnfinished (after a stop) rows without a result are passed over.
    const auto printResults = [&](bool skipUnfinished) {
        bool cleared = false;
        for (; printed < list.size(); ++printed) {
            const TaskItem& item = list.item(printed);
            if (!item.finished()) {
                if (skipUnfinished) {
                    continue;
                }
                break;
            }
            if (!cleared) {
                progress.clear();
                cleared = true;
            }
            const QcResult& result = *item.result();
            ++checked;
            if (result.score() < options->threshold) {
                ++below;
            }
            if (options->json) {
                print(check::jsonLine(result) + "\n");
            } else if (!options->quiet) {
                print(check::humanReport(result, false));
            }
        }
        flushStandardOutput();
    };
    // A stop signal, or standard output that takes nothing more (a full disk): the checks
    // still running are stopped, since nobody would see their results.
    bool outputFailed = false;
    while (g_stopSignal.load() == 0) {
        const TickReport report = controller->tick();
        // Results appear in list order, whatever order the checks end in.
        printResults(false);
        if (!standardOutputWritten()) {
            outputFailed = true;
            break;
        }
        if (report.allDone || controller->state() == RunState::Idle) {
            break;
        }
        if (!controller->runners().empty()) {
            progress.show(printed, list.size(), report.progress.value_or(0),
                          controller->runners().front()->path());
        }
        controller->waitForRunnerEnd(kProgressInterval);
    }
    const int stopSignal = g_stopSignal.load();
    const bool stopped = stopSignal != 0 || outputFailed;
    if (stopped) {
        // The stop flags, up to 2 s, then the forced abort of each check still running; the
        // clips they checked keep no result. Those finished meanwhile still count.
        controller->tick();
        controller.reset();
        printResults(true);
    }
    progress.clear();

    const std::size_t count = list.size();
    const std::string byProfile =
        profile != nullptr ? " by profile " + check::escapeControl(profile->name) : "";
    std::string summary = std::to_string(checked) + " clip" + (checked == 1 ? "" : "s") +
                          " checked at level " + std::to_string(options->level) + byProfile + ": " +
                          std::to_string(checked - below) + " at or above \"" +
                          std::string(scoreText(options->threshold)) + "\", " +
                          std::to_string(below) + " below\n";
    if (options->json || outputFailed) {
        std::fputs(summary.c_str(), stderr);
    } else {
        print(summary);
    }
    if (stopSignal != 0) {
        std::fprintf(stderr, "tarvoqc-check: stopped by SIG%s: %zu of %zu clips not checked\n",
                     sigabbrev_np(stopSignal), count - checked, count);
    }

    bool ioError = !inputsRead || stopped;
    if (!documentPath.empty()) {
        if (!saveResultDocument(documentPath, list)) {
            std::fprintf(stderr, "tarvoqc-check: cannot write the result document '%s'\n",
                         check::escapeControl(documentPath).c_str());
            ioError = true;
        }
    }
    if (!closeStandardOutput("tarvoqc-check")) {
        ioError = true;
    }
    if (ioError) {
        return kExitUsage;
    }
    return below > 0 ? kExitBelowThreshold : kExitPass;
}
