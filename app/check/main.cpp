#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <unistd.h>

#include "app/check/checkoptions.h"
#include "app/check/checkoutput.h"
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

// One line on standard error, redrawn in place: done/total, the mean progress of the
// running checks, and the clip being checked.
class ProgressBar
{
public:
    explicit ProgressBar(bool enabled) : m_enabled(enabled) {}

    void show(std::size_t done, std::size_t total, std::int32_t progress, const std::string& path)
    {
        if (!m_enabled) {
            return;
        }
        constexpr int kWidth = 30;
        constexpr std::size_t kNameChars = 40;
        const double fraction = total == 0 ? 1.0
                                           : (static_cast<double>(done) + progress / 100000.0) /
                                                 static_cast<double>(total);
        const int filled = static_cast<int>(fraction * kWidth);
        std::string bar(static_cast<std::size_t>(filled), '#');
        bar.resize(kWidth, '-');
        // Cut and padded by characters, never inside one.
        std::string name = check::escapeControl(std::filesystem::path(path).filename().string());
        std::size_t chars = utf8Length(name);
        if (chars > kNameChars) {
            name = cutUtf8(name, kNameChars - 3) + "...";
            chars = kNameChars;
        }
        name.append(kNameChars - chars, ' ');
        std::fprintf(stderr, "\r[%s] %3d%% %zu/%zu %s", bar.c_str(),
                     static_cast<int>(fraction * 100), done, total, name.c_str());
        std::fflush(stderr);
        m_shown = true;
    }

    void clear()
    {
        if (m_shown) {
            std::fprintf(stderr, "\r%*s\r", 90, "");
            std::fflush(stderr);
            m_shown = false;
        }
    }

private:
    bool m_enabled;
    bool m_shown = false;
};

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
        std::printf("%-20s %s\n%-20s %s\n", check::escapeControl(name).c_str(),
                    check::escapeControl(p.description.empty() ? p.name : p.description).c_str(),
                    "", check::escapeControl(p.file).c_str());
    }
    if (!technical) {
        std::printf("%-20s %s\n", "technical",
                    "no format rules, loudness as information (built in)");
    }
    for (const std::string& error : errors) {
        std::fprintf(stderr, "tarvoqc-check: %s\n", check::escapeControl(error).c_str());
    }
    return errors.empty() ? kExitPass : kExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    const auto options = check::parseCheckOptions(args, error);
    if (!options) {
        std::fprintf(stderr, "tarvoqc-check: %s\n", error.c_str());
        return kExitUsage;
    }
    if (options->help) {
        std::fputs(check::checkUsage().c_str(), stdout);
        return kExitPass;
    }
    if (options->version) {
        std::printf("tarvoqc-check (Tarvo Quality Check) %s build %d\n", kVersionText,
                    kVersionBuild);
        return kExitPass;
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
    const unsigned cores = std::max(1U, std::thread::hardware_concurrency());
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
    RunController controller(list, runOptions);
    controller.CheckAll(); // an empty list (a job without clips) stays idle

    ProgressBar progress(!options->quiet && ::isatty(STDERR_FILENO) != 0);
    std::size_t printed = 0;
    std::size_t below = 0;
    while (true) {
        const TickReport report = controller.tick();
        // Results appear in list order, whatever order the checks end in.
        bool cleared = false;
        while (printed < list.size() && list.item(printed).finished()) {
            if (!cleared) {
                progress.clear();
                cleared = true;
            }
            const QcResult& result = *list.item(printed).result();
            if (result.score() < options->threshold) {
                ++below;
            }
            if (options->json) {
                std::puts(check::jsonLine(result).c_str());
            } else if (!options->quiet) {
                std::fputs(check::humanReport(result, false).c_str(), stdout);
            }
            std::fflush(stdout);
            ++printed;
        }
        if (report.allDone || controller.state() == RunState::Idle) {
            break;
        }
        if (!controller.runners().empty()) {
            progress.show(printed, list.size(), report.progress.value_or(0),
                          controller.runners().front()->path());
        }
        controller.waitForRunnerEnd(kProgressInterval);
    }
    progress.clear();

    const std::size_t count = list.size();
    const std::string byProfile =
        profile != nullptr ? " by profile " + check::escapeControl(profile->name) : "";
    std::fprintf(options->json ? stderr : stdout,
                 "%zu clip%s checked at level %d%s: %zu at or above \"%s\", %zu below\n", count,
                 count == 1 ? "" : "s", options->level, byProfile.c_str(), count - below,
                 scoreText(options->threshold).data(), below);

    bool ioError = !inputsRead;
    if (!documentPath.empty()) {
        if (!saveResultDocument(documentPath, list)) {
            std::fprintf(stderr, "tarvoqc-check: cannot write the result document '%s'\n",
                         check::escapeControl(documentPath).c_str());
            ioError = true;
        }
    }
    if (ioError) {
        return kExitUsage;
    }
    return below > 0 ? kExitBelowThreshold : kExitPass;
}
