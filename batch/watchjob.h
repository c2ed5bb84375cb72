#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "batch/deliveryprofile.h"
#include "batch/watchclaims.h"
#include "batch/workerprocess.h"
#include "engine/checkoptions.h"
#include "results/checkdefaults.h"
#include "results/qcissue.h"
#include "results/qcresult.h"

namespace tarvoqc {

class DailyLog;

// ---------------------------------------------------------------------------------------
// Settings of the watch job (section "Job00" of the settings file)
// ---------------------------------------------------------------------------------------

// What the job does, copied as a whole between the window, the setup dialog and the
// worker. A plain value.
struct WatchJobSettings
{
    bool enabled = false;     // "Enabled"
    std::string sourceFolder; // "Source.Folder": the watched folder; "/" at the end optional
    std::string goodFolder;   // "Good.Move.Folder"
    std::string badFolder;    // "Bad.Move.Folder"
    bool moveGood = false;    // "Good.Move.Enable"
    bool moveBad = false;     // "Bad.Move.Enable"
    // "Good.QCTsh": 0 "Any clip" (every checked clip is GOOD), 1..5 the lowest QcScore that
    // is GOOD. Any other value is kept as it is (the dialog shows no choice for it) and
    // makes no clip GOOD: a threshold nobody picked never lets a clip into the GOOD folder.
    int goodThreshold = kDefaultGoodThreshold;
    // How deep each clip is checked (CheckLevel), and level 4's limits. Not among the seven
    // keys: the program's check settings (loadCheckSettings) set them; load leaves the
    // defaults.
    CheckLevel checkLevel = kDefaultCheckLevel;
    ClipCheckOptions check{};
    // The check processes: the job's own priority, and the limits of the settings.
    WorkerLimits worker{kThreadPriorityNormal};
    // "Settle.Time": the seconds a clip must stand unchanged before it is checked.
    int settleSeconds = kDefaultSettleSeconds;
    // The delivery profile each result is graded by ("Job00" or "Options" key
    // "Check.Profile", its loudness rule in check); null for none.
    std::shared_ptr<const DeliveryProfile> profile{};

    bool operator==(const WatchJobSettings&) const = default;
};

// The code of a move undone because the clip's result document could not be written beside
// its copy ("Cannot write the result document <path>: <reason>").
inline constexpr std::int32_t kDocumentNotWritten = -25;

// The threshold's lowest and highest meaningful values.
inline constexpr int kWatchAnyClip = 0;
inline constexpr int kWatchThresholdMax = 5;

// True when a clip with this score is GOOD under the threshold (see goodThreshold).
bool isGoodClip(QcScore score, int goodThreshold);

// Reads the seven "Job00" keys of the settings file at path; a missing file, section or
// key gives the defaults above. Flags are on for any non-zero number. A threshold value
// without a number in it (text) reads as -1, out of range, rather than as 0 "Any clip"
// as a plain integer read would have it.
WatchJobSettings loadWatchJobSettings(const std::string& path);
// Writes the seven keys, in the order "Enabled", "Source.Folder", "Good.QCTsh",
// "Good.Move.Enable", "Good.Move.Folder", "Bad.Move.Enable", "Bad.Move.Folder"; flags as
// "0"/"1", the threshold as decimal text, folders as they stand. Every key is tried; false
// when any write failed (callers may ignore it).
bool saveWatchJobSettings(const std::string& path, const WatchJobSettings& settings);

// ---------------------------------------------------------------------------------------
// The job
// ---------------------------------------------------------------------------------------

// What the worker has done since Start, for a window's status line and for waiting.
struct WatchJobStatus
{
    bool running = false;           // the worker thread exists and has not ended
    std::uint64_t passes = 0;       // passes ended (a pass of a disabled job counts too)
    std::string checking;           // the clip being checked or moved now; empty between clips
    std::int32_t progress = 0;      // of that clip's check, 0..kProgressMax (engine/clipchecker.h)
    std::uint64_t checked = 0;      // clips whose check ran to its end
    std::uint64_t moved = 0;        // clips moved (copy verified, source deleted)
    std::uint64_t moveFailures = 0; // move attempts that failed (a cancelled one does not)
    // The results logged ("QC <score text> <path>": a clip, or a new version of one), how
    // many of them were BAD, and the newest: its clip's path in the watched folder, its
    // score and whether it was GOOD. A result the run has logged already does not count.
    std::uint64_t results = 0;
    std::uint64_t badResults = 0;
    std::string lastPath;
    QcScore lastScore = 0;
    bool lastGood = false;
};

// Watches one folder: a worker thread checks every clip in it again and again and moves
// GOOD and BAD clips into their folders when the settings say so.
//
// A pass: list the source folder (entries that are folders or no clip by IsMediaFileName
// are left out; listing order kept). For each clip: skip it for now when it was modified
// less than 5 s ago or another program has it open for writing; check it with a fresh
// ClipChecker at the settings' check level (the job's stop flag cancels the check); leave
// it for a later pass when it changed or went away during the check; a clip whose check
// process crashed, hung or ran out of memory is BAD with the issue that says so, and that
// version of it is not checked again in this run of the worker; decide GOOD or BAD
// (isGoodClip); move it when that kind is to be moved: a verified copy under the clip's
// own name in that folder (" (n)" added when the name is taken) and the source deleted
// only then. Between passes the worker waits 5 s; less when woken, or when a clip of the
// pass was too fresh: then the next pass comes as soon as that clip has settled.
//
// What a checked clip leaves: in the daily log "QC <score text> <path>", and for a move
// "Moved <from> -> <to>" or "Move failed (<code>) <error text>"; its result document
// (one "Clip"/"QCheck" pair) as "<file name>.qcout" beside the clip's final place. The
// same file version (path, size, modification time, file identity) with the same result
// is logged and documented once per run of the worker, and a failed move is logged again
// only when it fails differently; a clip that cannot be opened is logged once per version
// as "Cannot open <path>" and is neither moved nor documented. A move whose copy was made
// but whose source could not be deleted or had changed (SafeMove's -24 and -23) is not repeated
// for that version, so no stream of copies grows. An empty GOOD or BAD folder fails the
// move with -1 "Invalid output name", that folder being the source folder with -4.
// The worker runs at the owner's priority (use nice for a lower one).
//
// Stop: the flag is set, the worker is woken and joined. A check in progress ends at its
// next packet (the engine then still hashes the rest of that clip); a check that has not
// ended 2 s after the flag is ended by force (its process is killed), so Stop waits at
// most about 2 s for a check. A copy in progress ends within one 64 KiB block.
//
// Thread-safety: Start, Stop, setSettings and the destructor belong to one owning thread
// (the window's). settings(), status(), isRunning(), waitForStatus() and wakeUp() may be
// called from any thread. The daily log is written from the worker.
class WatchJob
{
public:
    // log: where the job's lines go (not owned; may be null: nothing is logged); it must
    // outlive the job.
    explicit WatchJob(DailyLog* log = nullptr);
    // Stops the worker.
    virtual ~WatchJob();
    WatchJob(const WatchJob&) = delete;
    WatchJob& operator=(const WatchJob&) = delete;

    // The job's current settings, the ones the next Start hands to the worker.
    WatchJobSettings settings() const;
    // Replaces the job's settings; a running worker keeps its copy until the next Start.
    void setSettings(const WatchJobSettings& settings);

    // Hands the current settings to the worker: a running worker takes them at its next
    // pass; otherwise the worker thread starts and its first pass begins at once. False
    // only when no thread could be made.
    bool Start();
    // Ends the worker (see the class comment) and forgets what it logged; returns once the
    // thread has been joined. Does nothing without a worker.
    void Stop();
    // True while the worker thread runs.
    bool isRunning() const;

    // One whole pass (the recovery of ended jobs' claims first) on the calling thread, with
    // the current settings, for a run that ends after it (cron, tests). Only while no
    // worker thread runs; false otherwise. requestStop() from another thread (a signal)
    // ends it at the next clip, as Stop ends the worker.
    bool RunOnePass();
    // Sets the stop flag only: ends RunOnePass or the worker's pass soon. Any thread.
    void requestStop() { m_stop.store(1); }
    // Ends the check in progress by force (its process is killed). Any thread.
    void abortCheck();

    // Ends the worker's wait between passes now (a check, "look again"); nothing while a
    // pass runs other than that the next wait is skipped.
    void wakeUp();

    WatchJobStatus status() const;
    // Waits until condition(status()) is true or the timeout has passed; the condition is
    // evaluated at every change of the status and at least every 50 ms (progress moves
    // without telling). True when it came true.
    bool waitForStatus(const std::function<bool(const WatchJobStatus&)>& condition,
                       std::chrono::milliseconds timeout) const;

    // The wait between passes.
    // How long Stop lets a running check wind down before it ends it by force.
    static constexpr std::chrono::seconds kStopWait{2};
    static constexpr std::chrono::milliseconds kPassWait{5000};

private:
    // One version of a clip file: identity, size and modification time (ns).
    struct FileVersion
    {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t modified = 0;

        bool operator==(const FileVersion&) const = default;
    };
    // What the run has logged for one clip path.
    struct Seen
    {
        FileVersion version;
        bool opened = false;                 // false: logged as "Cannot open"
        QcScore score = 0;                   // the logged result
        std::vector<std::string> issueLines; // listLines order
        std::int32_t moveFailure = 0;        // the code of the last logged move failure, or 0
        bool good = false;                   // the decision of the logged result
        // The check process of this version failed (crash, hang, memory): its result, used
        // in place of checking it again.
        std::shared_ptr<const QcResult> failed;
    };
    // When a clip version was first seen, for the settling of files whose writers cannot
    // be probed.
    struct Sighting
    {
        FileVersion version;
        std::int64_t firstSeen = 0; // wall clock, ns since the epoch
    };

    void worker();
    void runPass(const WatchJobSettings& settings);
    void processClip(const WatchJobSettings& settings, const std::string& folder,
                     const std::string& name);
    // True when the clip has settled: see the class comment.
    bool settled(const WatchJobSettings& settings, const std::string& path,
                 const FileVersion& version);
    void openClaims(const std::string& folder);
    // Moves a claimed, checked clip into target (with "/"): 0 with finalPath set once the
    // copy and its document are in place and the claimed clip is gone; 0 with finalPath
    // empty when a stop cancelled it; otherwise the failure's code and text, and nothing of
    // the move is left behind (the claimed clip stays claimed).
    std::int32_t moveClaimed(const std::string& name, const std::string& target, QcResult result,
                             std::string& finalPath, std::string& error);
    // Finishes or undoes what ended jobs left in their claim folders.
    void recover();
    void saveDocument(const std::string& clipPath, const QcResult& result);
    static bool versionOf(const std::string& path, FileVersion& version);
    static void freezeAt(const char* step);
    void log(const std::string& text);
    WatchJobStatus statusLocked() const;
    void updateStatus(const std::function<void(WatchJobStatus&)>& change);
    bool stopping() const { return m_stop.load() != 0; }

    DailyLog* const m_log;

    mutable std::mutex m_settingsLock;
    WatchJobSettings m_settings;       // the job's, edited by the window
    WatchJobSettings m_workerSettings; // the copy the worker reads at each pass

    std::thread m_thread;
    std::atomic<std::int32_t> m_stop{0};

    // Guards m_wake and m_status; m_changed tells of both.
    mutable std::mutex m_stateLock;
    mutable std::condition_variable m_changed;
    bool m_wake = false;
    WatchJobStatus m_status;

    // The check in progress: set and cleared by the worker under m_stateLock, read by
    // status() and aborted by Stop.
    IsolatedCheck* m_check = nullptr;

    // Worker only.
    std::map<std::string, Seen> m_seen;
    std::map<std::string, Sighting> m_sightings;
    std::set<std::string> m_links; // links already logged as skipped
    std::unique_ptr<WatchClaims> m_claims;
    std::string m_claimsError; // why the claim folder could not be made, as last logged
    // The files other processes hold open for writing, looked up once per pass when needed.
    std::set<std::pair<std::uint64_t, std::uint64_t>> m_writers;
    bool m_writersKnown = false;
    // When the first clip that the last pass found too fresh will have settled (wall clock,
    // ns since the epoch); 0 when there was none.
    std::int64_t m_settledAt = 0;
};

} // namespace tarvoqc
