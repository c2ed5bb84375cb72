#include "batch/watchjob.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
#include "batch/watchclaims.h"
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

// One clip name of a folder listing.
struct FolderEntry
{
    std::string name;
    bool link = false; // a symbolic link (to a clip or anything else)
};

// The clip names of a folder in listing order; folders (also behind a link) left out.
// Empty when the folder cannot be listed.
std::vector<FolderEntry> scanFolder(const std::string& folder)
{
    std::vector<FolderEntry> entries;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) {
        return entries;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): each stream is read by one thread only
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (IsMediaFileName(name) == 0) {
            continue;
        }
        struct stat st = {};
        bool link = entry->d_type == DT_LNK;
        bool isFolder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            link = ::lstat((folder + name).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
            isFolder = ::stat((folder + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        }
        if (!isFolder) {
            entries.push_back({name, link});
        }
    }
    ::closedir(dir);
    return entries;
}

// The name of a clip's result document: "<clip>.qcout", or, for a name too long for that,
// a cut name with a mark (fitFileName).
std::string documentPathFor(const std::string& clipPath)
{
    const std::size_t slash = clipPath.rfind('/');
    const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
    return clipPath.substr(0, start) + fitFileName(clipPath.substr(start), kDocumentExtension);
}

// Writes the result document of one clip; false with the reason.
bool writeDocument(const std::string& path, const QcResult& result, std::string& error)
{
    XmlNode document;
    buildResultDocument(document, {{result.path, &result}});
    errno = 0;
    if (document.Save(path)) {
        return true;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's texts for known errors are constant
    error = errno != 0 ? std::strerror(errno) : "cannot be written";
    return false;
}

bool fileExists(const std::string& path)
{
    struct stat st = {};
    return ::lstat(path.c_str(), &st) == 0;
}

// Whether two paths hold the same bytes (regular files of one size and content).
bool sameBytes(const std::string& a, const std::string& b)
{
    FileHandle first = openForReading(a);
    FileHandle second = openForReading(b);
    struct stat stA = {};
    struct stat stB = {};
    if (!first.valid() || !second.valid() || ::fstat(first.get(), &stA) != 0 ||
        ::fstat(second.get(), &stB) != 0 || stA.st_size != stB.st_size) {
        return false;
    }
    constexpr std::size_t kBlock = 1 << 20;
    std::vector<char> bufferA(kBlock);
    std::vector<char> bufferB(kBlock);
    for (;;) {
        const ssize_t gotA = readFull(first.get(), bufferA.data(), kBlock);
        const ssize_t gotB = readFull(second.get(), bufferB.data(), kBlock);
        if (gotA < 0 || gotA != gotB ||
            std::memcmp(bufferA.data(), bufferB.data(), static_cast<std::size_t>(gotA)) != 0) {
            return false;
        }
        if (gotA == 0) {
            return true;
        }
    }
}

// The files that some process this one may look at holds open for writing (device, inode);
// other users' processes are hidden from an unprivileged job, so this is a second signal
// beside the file's settling, never the only one.
std::set<std::pair<std::uint64_t, std::uint64_t>> filesOpenForWriting()
{
    std::set<std::pair<std::uint64_t, std::uint64_t>> files;
    DIR* processes = ::opendir("/proc");
    if (processes == nullptr) {
        return files;
    }
    const std::string self = std::to_string(::getpid());
    // NOLINTNEXTLINE(concurrency-mt-unsafe): each stream is read by one thread only
    while (const dirent* process = ::readdir(processes)) {
        const std::string pid = process->d_name;
        if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos ||
            pid == self) {
            continue;
        }
        const std::string fdFolder = "/proc/" + pid + "/fd/";
        DIR* fds = ::opendir(fdFolder.c_str());
        if (fds == nullptr) {
            continue;
        }
        // NOLINTNEXTLINE(concurrency-mt-unsafe): each stream is read by one thread only
        while (const dirent* fd = ::readdir(fds)) {
            if (fd->d_name[0] == '.') {
                continue;
            }
            struct stat st = {};
            if (::stat((fdFolder + fd->d_name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
                continue;
            }
            const FileBytes info = readWholeFile("/proc/" + pid + "/fdinfo/" + fd->d_name, 4096);
            const std::size_t at = info.bytes.find("flags:");
            if (at == std::string::npos) {
                continue;
            }
            const unsigned long flags = std::strtoul(info.bytes.c_str() + at + 6, nullptr, 8);
            if ((flags & O_ACCMODE) != O_RDONLY) {
                files.insert(
                    {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino)});
            }
        }
        ::closedir(fds);
    }
    ::closedir(processes);
    return files;
}

// Test-only seam: "TARVOQC_WATCH_FREEZE=<step>" stops the process (SIGSTOP) when a move
// reaches that step, so that a test can kill it there and prove the recovery.
void freezeIfAsked(const char* step)
{
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the programs never change their environment
    static const char* const asked = std::getenv("TARVOQC_WATCH_FREEZE");
    if (asked != nullptr && std::strcmp(asked, step) == 0) {
        ::raise(SIGSTOP);
    }
}

} // namespace

bool WatchJob::versionOf(const std::string& path, FileVersion& version)
{
    struct stat st = {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return false;
    }
    version = {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
               static_cast<std::uint64_t>(st.st_size), nanoseconds(st.st_mtim)};
    return true;
}

void WatchJob::freezeAt(const char* step)
{
    freezeIfAsked(step);
}

void WatchJob::saveDocument(const std::string& clipPath, const QcResult& result)
{
    std::string error;
    QcResult named = result;
    named.path = clipPath;
    const std::string document = documentPathFor(clipPath);
    if (!writeDocument(document, named, error)) {
        log("Cannot write the result document " + document + ": " + error);
    }
}

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
    settings.settleSeconds = std::clamp(readSettingNumber(path, kJobSettleTime), 0, 24 * 3600);
    // A plain integer read would turn text into 0, "Any clip", and let every clip into the
    // GOOD folder; text without a number is out of range instead.
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
        abortCheck();
    }
    m_thread.join();
    m_seen.clear();
    m_sightings.clear();
    m_claims.reset();
    std::lock_guard lock(m_stateLock);
    m_wake = false;
}

void WatchJob::abortCheck()
{
    std::lock_guard lock(m_stateLock);
    if (m_check != nullptr) {
        m_check->abort();
    }
}

bool WatchJob::isRunning() const
{
    return status().running;
}

bool WatchJob::RunOnePass()
{
    if (m_thread.joinable()) {
        return false;
    }
    const WatchJobSettings current = settings();
    if (current.enabled) {
        runPass(current);
    }
    // What this run claimed and knows goes with it, as at the end of a worker.
    m_claims.reset();
    m_seen.clear();
    m_sightings.clear();
    updateStatus([](WatchJobStatus& status) {
        ++status.passes;
        status.checking.clear();
    });
    return true;
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
    m_settledAt = 0;
    m_writersKnown = false;

    // With a move switched on, clips are claimed before they are checked, so that other
    // jobs on this folder leave them alone; what an ended job left claimed is finished or
    // given back first.
    if (!(settings.moveGood || settings.moveBad) ||
        (m_claims != nullptr && m_claims->watched() != folder)) {
        m_claims.reset();
    }
    if ((settings.moveGood || settings.moveBad) && fileExists(folder + kClaimsFolderName)) {
        openClaims(folder);
        if (m_claims != nullptr) {
            recover();
        }
    }

    const std::vector<FolderEntry> entries = scanFolder(folder);
    std::set<std::string> present;
    for (const FolderEntry& entry : entries) {
        present.insert(entry.name);
    }
    // Forget the clips that have gone, so the memory stays as small as the folder.
    const auto gone = [&](const std::string& path) {
        return path.size() < folder.size() || path.compare(0, folder.size(), folder) != 0 ||
               present.count(path.substr(folder.size())) == 0;
    };
    std::erase_if(m_seen, [&](const auto& entry) { return gone(entry.first); });
    std::erase_if(m_sightings, [&](const auto& entry) { return gone(entry.first); });
    std::erase_if(m_links, [&](const std::string& path) { return gone(path); });

    for (const FolderEntry& entry : entries) {
        if (stopping()) {
            return;
        }
        if (entry.link) {
            // A link's clip lives elsewhere (or is another name of a clip here): moving it
            // would move the bytes and leave the target, checking it would count it twice.
            if (m_links.insert(folder + entry.name).second) {
                log("Skipped link " + folder + entry.name);
            }
            continue;
        }
        processClip(settings, folder, entry.name);
        updateStatus([&](WatchJobStatus& status) { status.checking.clear(); });
    }
}

void WatchJob::openClaims(const std::string& folder)
{
    if (m_claims != nullptr && m_claims->watched() == folder) {
        return;
    }
    m_claims.reset();
    auto claims = std::make_unique<WatchClaims>();
    std::string error;
    // A failure is told by the move it stops ("Move failed (-1) Cannot claim clips ...").
    if (claims->open(folder, error)) {
        m_claims = std::move(claims);
        m_claimsError.clear();
    } else {
        m_claimsError = error;
    }
}

bool WatchJob::settled(const WatchJobSettings& settings, const std::string& path,
                       const FileVersion& version)
{
    const std::int64_t settle = std::int64_t{settings.settleSeconds} * 1'000'000'000;
    const std::int64_t now = realTimeNow();
    const auto waitUntil = [&](std::int64_t at) {
        m_settledAt = m_settledAt == 0 ? at : std::min(m_settledAt, at);
        return false;
    };
    // Modified within the settle time (either way, for a writer whose clock runs ahead).
    const std::int64_t age = now - version.modified;
    if (age < settle && age > -settle) {
        return waitUntil(version.modified + settle);
    }
    // The same version must have been seen a settle time ago: a file that grows or is
    // touched restarts its wait. This needs no right on the file, so it holds for uploads
    // of other owners too.
    Sighting& sighting = m_sightings[path];
    if (sighting.version != version) {
        sighting = {version, now};
    }
    WriteLockProbe probe = WriteLockProbe::Unknown;
    if (FileHandle file = openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY); file.valid()) {
        probe = probeWriteLock(file.get());
    }
    if (probe == WriteLockProbe::Locked) {
        return waitUntil(now + settle);
    }
    if (probe == WriteLockProbe::Free) {
        return true; // the kernel says nobody has it open for writing
    }
    // The lease could not be tried (a file of another owner, a network file system): a
    // failed probe never counts as free. The file waits for its second sighting, and for
    // every writer this process can see to have closed it.
    if (now - sighting.firstSeen < settle) {
        return waitUntil(sighting.firstSeen + settle);
    }
    if (!m_writersKnown) {
        m_writers = filesOpenForWriting();
        m_writersKnown = true;
    }
    if (m_writers.count({version.device, version.inode}) != 0) {
        return waitUntil(now + settle);
    }
    return true;
}

void WatchJob::processClip(const WatchJobSettings& settings, const std::string& folder,
                           const std::string& name)
{
    const std::string path = folder + name;
    FileVersion version;
    if (!versionOf(path, version) || !settled(settings, path, version)) {
        return;
    }

    // A version whose check process failed is not checked again: the failure would come
    // again, pass after pass.
    const auto earlier = m_seen.find(path);
    std::shared_ptr<const QcResult> failed;
    if (earlier != m_seen.end() && earlier->second.version == version) {
        failed = earlier->second.failed;
        // With moves on, a clip whose kind is not moved stays after its check: claiming it
        // again pass after pass would only hide it from the folder now and then.
        const Seen& seen = earlier->second;
        if ((settings.moveGood || settings.moveBad) && seen.opened &&
            !(seen.good ? settings.moveGood : settings.moveBad)) {
            return;
        }
    }

    // The claim: from here on the clip is this job's alone, in its claim folder.
    if ((settings.moveGood || settings.moveBad) && m_claims == nullptr) {
        openClaims(folder);
    }
    std::string checkPath = path;
    if (m_claims != nullptr) {
        checkPath = m_claims->claim(name);
        if (checkPath.empty()) {
            return; // another job has it, or it is gone
        }
        FileVersion claimed;
        if (!versionOf(checkPath, claimed) || claimed != version) {
            m_claims->giveBack(name); // changed between the look and the claim
            return;
        }
        freezeAt("claimed");
    }
    // Gives a claimed clip back to the folder (when a check or move cannot go on).
    const auto giveBack = [&] {
        if (checkPath != path) {
            m_claims->giveBack(name);
            m_claims->forget(name);
        }
    };

    QcResult result;
    int ran = 0;
    bool opened = true;
    const bool checkedBefore = failed != nullptr;
    if (checkedBefore) {
        result = *failed;
    } else {
        static std::atomic<std::uint64_t> requests{0};
        IsolatedCheck check(
            {++requests, checkPath, settings.checkLevel, kDecoderThreadOption, settings.check},
            settings.worker);
        updateStatus([&](WatchJobStatus& status) {
            status.checking = path;
            m_check = &check;
        });
        CheckOutcome outcome = check.run(&m_stop);
        updateStatus([&](WatchJobStatus&) { m_check = nullptr; });
        if (outcome.end == CheckEnd::NotStarted) {
            giveBack();
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
            giveBack();
            return;
        }
    }
    result.path = path;
    if (settings.profile != nullptr) {
        applyDeliveryProfile(*settings.profile, result);
    }

    // A cancelled check is unfinished; a clip that changed or went during the check is
    // looked at again in the next pass.
    FileVersion after;
    if (stopping() || ran == -9 || !versionOf(checkPath, after) || after != version) {
        giveBack();
        return;
    }
    Seen& seen = m_seen[path];
    if (!opened) {
        giveBack();
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
                    .good = false,
                    .failed = nullptr};
        log("QC " + std::string(scoreText(score)) + " " + path);
    }
    seen.failed = failed;

    const bool good = isGoodClip(score, settings.goodThreshold);
    seen.good = good;
    if (!known) {
        updateStatus([&](WatchJobStatus& status) {
            ++status.results;
            status.badResults += good ? 0 : 1;
            status.lastPath = path;
            status.lastScore = score;
            status.lastGood = good;
        });
    }
    const bool move = good ? settings.moveGood : settings.moveBad;
    // A clip that stays after its check goes back to the folder with its document beside
    // it (under the name it got back, which differs when a new clip of its name arrived
    // meanwhile).
    const auto stay = [&](bool document) {
        std::string where = path;
        if (checkPath != path) {
            where = m_claims->giveBack(name);
            m_claims->forget(name);
            if (where.empty()) {
                return; // still claimed: the next pass gives it back
            }
        }
        if (!document && where == path) {
            return;
        }
        saveDocument(where, result);
        // Another job may have claimed the clip the moment it was back; its move takes the
        // document of the source away, but not one written after that.
        if (checkPath != path && !fileExists(where)) {
            ::unlink(documentPathFor(where).c_str());
        }
    };
    if (!move) {
        stay(!known);
        return;
    }
    const std::string& target = good ? settings.goodFolder : settings.badFolder;
    std::int32_t rc = 0;
    std::string error;
    if (target.empty()) {
        rc = -1;
        error = "Invalid output name";
    } else if (sameFolder(withSlash(target), folder)) {
        // A move onto itself would rename the clip to " (1)" pass after pass.
        rc = -4;
        error = "Cannot copy, output exists";
    } else if (m_claims == nullptr) {
        rc = -1;
        error = "Cannot claim clips in " + folder + ": " + m_claimsError;
    } else {
        m_claims->writeResult(name, result);
        freezeAt("checked");
        std::string finalPath;
        rc = moveClaimed(name, withSlash(target), result, finalPath, error);
        if (rc == 0 && !finalPath.empty()) {
            m_seen.erase(path);
            updateStatus([](WatchJobStatus& status) { ++status.moved; });
            return;
        }
        if (rc == 0) {
            giveBack();
            return; // cancelled by a stop: nothing moved
        }
    }
    updateStatus([](WatchJobStatus& status) { ++status.moveFailures; });
    if (seen.moveFailure != rc) {
        seen.moveFailure = rc;
        log("Move failed (" + std::to_string(rc) + ") " + error);
    }
    stay(true);
}

std::int32_t WatchJob::moveClaimed(const std::string& name, const std::string& target,
                                   QcResult result, std::string& finalPath, std::string& error)
{
    const std::string claimed = m_claims->own() + name;
    TransferProgress progress(&m_stop);
    std::int32_t rc = 0;
    // The final name is chosen before the copy and written down with the temp name, so that
    // after a crash the copy can be told from every other file; a name taken meanwhile (by
    // another job moving a clip of the same name) is chosen again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        std::string final = target + name;
        if (!UniqueFileName(final)) {
            error = "Cannot generate output filename";
            return -3;
        }
        WatchClaims::MovePlan plan{{}, final};
        const TempNameHook record = [&](const std::string& temp) {
            plan.temp = temp;
            const bool written = m_claims->writePlan(name, plan);
            freezeAt("planned");
            return written;
        };
        rc = SafeTransfer(final, claimed, TransferVerify, &progress, &finalPath, record);
        if (rc != -45 && rc != -4) {
            break;
        }
    }
    if (rc != 0 || finalPath.empty()) {
        m_claims->forget(name);
        error = progress.error();
        return rc; // SafeTransfer removed its temp file; a cancelled one moved nothing
    }
    freezeAt("copied");
    result.path = finalPath;
    const std::string document = documentPathFor(finalPath);
    if (!writeDocument(document, result, error)) {
        // A clip in GOOD or BAD without its document would be a clip nobody can judge: the
        // move is undone (the copy is ours), the clip goes back with its document.
        ::unlink(finalPath.c_str());
        syncFolder(target);
        m_claims->forget(name);
        finalPath.clear();
        error = "Cannot write the result document " + document + ": " + error;
        return kDocumentNotWritten;
    }
    freezeAt("documented");
    const std::string source = m_claims->watched() + name;
    if (::unlink(claimed.c_str()) != 0) {
        // Two copies of one clip would be worse than none moved: the copy goes again.
        // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc's texts for known errors are constant
        error = std::string("Cannot delete source ") + claimed + ": " + std::strerror(errno);
        ::unlink(document.c_str());
        ::unlink(finalPath.c_str());
        syncFolder(target);
        m_claims->forget(name);
        finalPath.clear();
        return kSourceNotDeleted;
    }
    syncFolder(m_claims->own());
    log("Moved " + source + " -> " + finalPath);
    // The document of an earlier pass goes with the clip.
    ::unlink(documentPathFor(source).c_str());
    m_claims->forget(name);
    freezeAt("moved");
    return 0;
}

void WatchJob::recover()
{
    // Clips of this job that could not be given back when their check ended (the watched
    // folder was away for a moment) are tried again.
    for (const std::string& name : WatchClaims::clipsIn(m_claims->own())) {
        if (const std::string back = m_claims->giveBack(name); !back.empty()) {
            m_claims->forget(name);
            log("Given back " + back);
        }
    }
    for (const std::string& folder : m_claims->abandoned()) {
        for (const std::string& name : WatchClaims::clipsIn(folder)) {
            const std::string clip = folder + name;
            const std::string source = m_claims->watched() + name;
            if (const auto plan = WatchClaims::readPlanIn(folder, name)) {
                if (!plan->temp.empty()) {
                    ::unlink(plan->temp.c_str()); // a copy that never got its final name
                    syncFolder(folderOf(plan->temp));
                }
                // The copy has its final name: only the last steps were missing.
                if (sameBytes(plan->final, clip)) {
                    const auto result = WatchClaims::readResultIn(folder, name);
                    std::string error;
                    const std::string document = documentPathFor(plan->final);
                    if (result && !fileExists(document)) {
                        QcResult moved = *result;
                        moved.path = plan->final;
                        writeDocument(document, moved, error);
                    }
                    log("Moved " + source + " -> " + plan->final);
                    ::unlink(documentPathFor(source).c_str());
                    ::unlink(clip.c_str());
                    syncFolder(folder);
                    continue;
                }
            }
            // Anything else is undone: the clip goes back and is checked again.
            const std::string back = m_claims->giveBackFrom(folder, name);
            log(back.empty() ? "Cannot give back " + clip : "Given back " + back);
        }
        m_claims->release(folder);
    }
}

} // namespace tarvoqc
