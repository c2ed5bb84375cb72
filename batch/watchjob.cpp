#include "batch/watchjob.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <memory>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "batch/safetransfer.h"
#include "batch/tasklist.h"
#include "engine/clipchecker.h"
#include "engine/fileinfo.h"
#include "results/dailylog.h"
#include "results/resultfile.h"
#include "results/xmlnode.h"
#include "settings/profilestore.h"

namespace tarvoqc {

namespace {

// The window's choice of decoder threads: the library decides.
constexpr int kDecoderThreadOption = 2;
constexpr std::string_view kDocumentExtension = ".qcout";

std::string withSlash(const std::string& folder)
{
    return folder.empty() || folder.back() == '/' ? folder : folder + "/";
}

std::int64_t nanoseconds(const struct timespec& time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// The wall clock in nanoseconds since the epoch, the time base of modification times.
std::int64_t realTimeNow()
{
    struct timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanoseconds(now);
}

// Added to the wait for a settling clip, so that the next pass does not come a hair early.
constexpr std::chrono::nanoseconds kSettleMargin = std::chrono::milliseconds(50);

// True when the two paths name one and the same folder.
bool sameFolder(const std::string& a, const std::string& b)
{
    struct stat stA = {};
    struct stat stB = {};
    return ::stat(a.empty() ? "." : a.c_str(), &stA) == 0 &&
           ::stat(b.empty() ? "." : b.c_str(), &stB) == 0 && stA.st_dev == stB.st_dev &&
           stA.st_ino == stB.st_ino;
}

// The clip names of a folder in listing order; folders left out. Empty when the folder
// cannot be listed.
std::vector<std::string> scanFolder(const std::string& folder)
{
    std::vector<std::string> names;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (IsMediaFileName(name) == 0) {
            continue;
        }
        bool isFolder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            struct stat st = {};
            isFolder = ::stat((folder + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        }
        if (!isFolder) {
            names.push_back(name);
        }
    }
    ::closedir(dir);
    return names;
}

void saveDocument(const std::string& clipPath, const QcResult& result)
{
    XmlNode document;
    buildResultDocument(document, {{clipPath, &result}});
    // A folder that takes no files keeps the log line as the only trace.
    document.Save(clipPath + std::string(kDocumentExtension));
}

} // namespace

bool isGoodClip(QcScore score, int goodThreshold)
{
    if (goodThreshold == kWatchAnyClip) {
        return true;
    }
    return goodThreshold > kWatchAnyClip && goodThreshold <= kWatchThresholdMax &&
           score >= goodThreshold;
}

WatchJobSettings loadWatchJobSettings(const std::string& path)
{
    WatchJobSettings settings;
    settings.enabled = readSettingNumber(path, kJobEnabled) != 0;
    settings.sourceFolder = readSettingText(path, kJobSourceFolder);
    settings.goodFolder = readSettingText(path, kJobGoodMoveFolder);
    settings.badFolder = readSettingText(path, kJobBadMoveFolder);
    settings.moveGood = readSettingNumber(path, kJobGoodMoveEnable) != 0;
    settings.moveBad = readSettingNumber(path, kJobBadMoveEnable) != 0;
    // The classic integer read turns text into 0, "Any clip", which would let every clip
    // into the GOOD folder; text without a number is out of range instead.
    const std::string threshold =
        readProfileString(path, kJobGoodThreshold.section, kJobGoodThreshold.key, "");
    std::size_t digit = threshold.find_first_not_of(" \t");
    if (digit != std::string::npos && (threshold[digit] == '-' || threshold[digit] == '+')) {
        ++digit;
    }
    if (threshold.empty()) {
        settings.goodThreshold = kJobGoodThreshold.defaultNumber;
    } else if (digit < threshold.size() &&
               std::isdigit(static_cast<unsigned char>(threshold[digit])) != 0) {
        settings.goodThreshold = profileTextToInt(threshold);
    } else {
        settings.goodThreshold = -1;
    }
    return settings;
}

bool saveWatchJobSettings(const std::string& path, const WatchJobSettings& settings)
{
    const auto flag = [&](const SettingKey& key, bool on) {
        return writeProfileInt64(path, key.section, key.key, on ? 1 : 0);
    };
    const auto text = [&](const SettingKey& key, const std::string& value) {
        return writeProfileString(path, key.section, key.key, value);
    };
    bool ok = flag(kJobEnabled, settings.enabled);
    ok = text(kJobSourceFolder, settings.sourceFolder) && ok;
    ok = writeProfileInt64(path, kJobGoodThreshold.section, kJobGoodThreshold.key,
                           settings.goodThreshold) &&
         ok;
    ok = flag(kJobGoodMoveEnable, settings.moveGood) && ok;
    ok = text(kJobGoodMoveFolder, settings.goodFolder) && ok;
    ok = flag(kJobBadMoveEnable, settings.moveBad) && ok;
    ok = text(kJobBadMoveFolder, settings.badFolder) && ok;
    return ok;
}

WatchJob::WatchJob(DailyLog* log) : m_log(log) {}

WatchJob::~WatchJob()
{
    Stop();
}

WatchJobSettings WatchJob::settings() const
{
    std::lock_guard lock(m_settingsLock);
    return m_settings;
}

void WatchJob::setSettings(const WatchJobSettings& settings)
{
    std::lock_guard lock(m_settingsLock);
    m_settings = settings;
}

bool WatchJob::Start()
{
    {
        std::lock_guard lock(m_settingsLock);
        m_workerSettings = m_settings;
    }
    if (m_thread.joinable()) {
        return true;
    }
    m_stop.store(0);
    updateStatus([](WatchJobStatus& status) {
        status = WatchJobStatus{};
        status.running = true;
    });
    try {
        m_thread = std::thread(&WatchJob::worker, this);
    } catch (const std::system_error&) {
        updateStatus([](WatchJobStatus& status) { status.running = false; });
        return false;
    }
    return true;
}

void WatchJob::Stop()
{
    if (!m_thread.joinable()) {
        return;
    }
    m_stop.store(1);
    {
        std::lock_guard lock(m_stateLock);
        m_wake = true;
    }
    m_changed.notify_all();
    // A check gets the graceful wait of every check; one that is still running then (stuck
    // in a library, or hashing a large clip to its end) is ended with its process.
    if (!waitForStatus([](const WatchJobStatus& status) { return !status.running; }, kStopWait)) {
        std::lock_guard lock(m_stateLock);
        if (m_check != nullptr) {
            m_check->abort();
        }
    }
    m_thread.join();
    m_seen.clear();
    std::lock_guard lock(m_stateLock);
    m_wake = false;
}

bool WatchJob::isRunning() const
{
    return status().running;
}

void WatchJob::wakeUp()
{
    {
        std::lock_guard lock(m_stateLock);
        m_wake = true;
    }
    m_changed.notify_all();
}

WatchJobStatus WatchJob::statusLocked() const
{
    WatchJobStatus status = m_status;
    status.progress = m_check != nullptr ? m_check->progress() : 0;
    return status;
}

WatchJobStatus WatchJob::status() const
{
    std::lock_guard lock(m_stateLock);
    return statusLocked();
}

bool WatchJob::waitForStatus(const std::function<bool(const WatchJobStatus&)>& condition,
                             std::chrono::milliseconds timeout) const
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(m_stateLock);
    while (!condition(statusLocked())) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= end) {
            return false;
        }
        m_changed.wait_for(lock, std::min<std::chrono::steady_clock::duration>(
                                     end - now, std::chrono::milliseconds(50)));
    }
    return true;
}

void WatchJob::updateStatus(const std::function<void(WatchJobStatus&)>& change)
{
    {
        std::lock_guard lock(m_stateLock);
        change(m_status);
    }
    m_changed.notify_all();
}

void WatchJob::log(const std::string& text)
{
    if (m_log != nullptr) {
        m_log->writeNow(text);
    }
}

void WatchJob::worker()
{
    while (!stopping()) {
        WatchJobSettings settings;
        {
            std::lock_guard lock(m_settingsLock);
            settings = m_workerSettings;
        }
        if (settings.enabled) {
            try {
                runPass(settings);
            } catch (const std::exception&) {
                // Out of memory: the next pass tries again.
                updateStatus([](WatchJobStatus& status) { status.checking.clear(); });
            }
        }
        if (stopping()) {
            break;
        }
        // A clip that was too fresh is looked at again as soon as it has settled, so a
        // drop costs the settle time and not a settle time plus a whole wait.
        std::chrono::nanoseconds wait = kPassWait;
        if (m_settledAt != 0) {
            wait = std::clamp(std::chrono::nanoseconds(m_settledAt - realTimeNow()) + kSettleMargin,
                              kSettleMargin, std::chrono::nanoseconds(kPassWait));
        }
        std::unique_lock lock(m_stateLock);
        ++m_status.passes;
        m_changed.notify_all();
        m_changed.wait_for(lock, wait, [&] { return m_wake || stopping(); });
        m_wake = false;
    }
    updateStatus([](WatchJobStatus& status) {
        status.running = false;
        status.checking.clear();
    });
}

void WatchJob::runPass(const WatchJobSettings& settings)
{
    // An empty source folder would be the worker's current folder: nothing is watched.
    if (settings.sourceFolder.empty()) {
        m_seen.clear();
        return;
    }
    const std::string folder = withSlash(settings.sourceFolder);
    const std::vector<std::string> names = scanFolder(folder);
    m_settledAt = 0;

    // Forget the clips that have gone, so the memory stays as small as the folder.
    const std::set<std::string> present(names.begin(), names.end());
    std::erase_if(m_seen, [&](const auto& entry) {
        return entry.first.size() < folder.size() ||
               entry.first.compare(0, folder.size(), folder) != 0 ||
               present.count(entry.first.substr(folder.size())) == 0;
    });

    for (const std::string& name : names) {
        if (stopping()) {
            return;
        }
        processClip(settings, folder, name);
        updateStatus([&](WatchJobStatus& status) { status.checking.clear(); });
    }
}

void WatchJob::processClip(const WatchJobSettings& settings, const std::string& folder,
                           const std::string& name)
{
    const std::string path = folder + name;
    const auto versionOf = [&](FileVersion& version) {
        struct stat st = {};
        if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            return false;
        }
        version = {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
                   static_cast<std::uint64_t>(st.st_size), nanoseconds(st.st_mtim)};
        return true;
    };

    // A clip still arriving: modified within the settle time (either way, for a writer
    // whose clock runs ahead), or open for writing by another program.
    FileVersion version;
    if (!versionOf(version)) {
        return;
    }
    const std::int64_t age = realTimeNow() - version.modified;
    const std::int64_t settle =
        std::chrono::duration_cast<std::chrono::nanoseconds>(kSettleTime).count();
    if (age < settle && age > -settle) {
        const std::int64_t settledAt = version.modified + settle;
        m_settledAt = m_settledAt == 0 ? settledAt : std::min(m_settledAt, settledAt);
        return;
    }
    {
        const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        const bool locked = fd >= 0 && isWriteLocked(fd);
        if (fd >= 0) {
            ::close(fd);
        }
        if (locked) {
            return;
        }
    }

    // A version whose check process failed is not checked again: the failure would come
    // again, pass after pass.
    const auto earlier = m_seen.find(path);
    std::shared_ptr<const QcResult> failed;
    if (earlier != m_seen.end() && earlier->second.version == version) {
        failed = earlier->second.failed;
    }
    QcResult result;
    int ran = 0;
    bool opened = true;
    const bool checkedBefore = failed != nullptr;
    if (checkedBefore) {
        result = *failed;
    } else {
        static std::atomic<std::uint64_t> requests{0};
        IsolatedCheck check(
            {++requests, path, settings.checkLevel, kDecoderThreadOption, settings.check},
            settings.worker);
        updateStatus([&](WatchJobStatus& status) {
            status.checking = path;
            m_check = &check;
        });
        CheckOutcome outcome = check.run(&m_stop);
        updateStatus([&](WatchJobStatus&) { m_check = nullptr; });
        if (outcome.end == CheckEnd::NotStarted) {
            // Nothing was checked (the worker program is missing, say): the clip stays.
            Seen& seen = m_seen[path];
            if (seen.version != version || seen.opened) {
                seen = Seen{};
                seen.version = version;
                log("Cannot check " + path + ": " + outcome.result.issues.all().back()->text);
            }
            return;
        }
        ran = outcome.runCode;
        // A failed check process counts as a check: the clip is BAD with the reason.
        opened = outcome.result.opened || outcome.end == CheckEnd::Failed;
        if (outcome.end == CheckEnd::Failed) {
            failed = std::make_shared<const QcResult>(outcome.result);
        }
        result = std::move(outcome.result);
        if (outcome.end == CheckEnd::Aborted) {
            return;
        }
    }

    // A cancelled check is unfinished; a clip that changed or went during the check is
    // looked at again in the next pass.
    FileVersion after;
    if (stopping() || ran == -9 || !versionOf(after) || after != version) {
        return;
    }
    Seen& seen = m_seen[path];
    if (!opened) {
        if (seen.version != version || seen.opened) {
            seen = Seen{};
            seen.version = version;
            log("Cannot open " + path);
        }
        return;
    }
    if (!checkedBefore) {
        updateStatus([](WatchJobStatus& status) { ++status.checked; });
    }

    std::vector<std::string> issueLines;
    result.issues.listLines(issueLines);
    const QcScore score = result.score();
    const bool known = seen.version == version && seen.opened && seen.score == score &&
                       seen.issueLines == issueLines;
    if (!known) {
        seen = Seen{.version = version,
                    .opened = true,
                    .score = score,
                    .issueLines = issueLines,
                    .moveFailure = 0,
                    .copied = false,
                    .failed = nullptr};
        log("QC " + std::string(scoreText(score)) + " " + path);
    }
    seen.failed = failed;

    const bool good = isGoodClip(score, settings.goodThreshold);
    if ((good ? settings.moveGood : settings.moveBad) && !seen.copied) {
        const std::string& target = good ? settings.goodFolder : settings.badFolder;
        TransferProgress progress(&m_stop);
        std::string finalPath;
        std::int32_t rc = 0;
        if (target.empty()) {
            rc = -1;
            TransferProgress::setError(&progress, "Invalid output name");
        } else if (sameFolder(withSlash(target), folder)) {
            // A move onto itself would rename the clip to " (1)" pass after pass.
            rc = -4;
            TransferProgress::setError(&progress, "Cannot copy, output exists");
        } else {
            rc = SafeMove(withSlash(target) + name, path, TransferVerify | TransferUnique,
                          &progress, &finalPath);
        }
        if (rc == 0 && !finalPath.empty()) {
            m_seen.erase(path);
            log("Moved " + path + " -> " + finalPath);
            result.path = finalPath;
            saveDocument(finalPath, result);
            // The document of an earlier pass goes with the clip.
            ::unlink((path + std::string(kDocumentExtension)).c_str());
            updateStatus([](WatchJobStatus& status) { ++status.moved; });
            return;
        }
        if (rc == 0) {
            return; // cancelled by a stop: nothing moved
        }
        seen.copied = !finalPath.empty();
        updateStatus([](WatchJobStatus& status) { ++status.moveFailures; });
        if (seen.moveFailure != rc) {
            seen.moveFailure = rc;
            log("Move failed (" + std::to_string(rc) + ") " + progress.error());
        }
    }
    if (!known) {
        saveDocument(path, result);
    }
}

} // namespace tarvoqc
