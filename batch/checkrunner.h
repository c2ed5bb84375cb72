#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "batch/deliveryprofile.h"
#include "batch/workerprocess.h"
#include "batch/workerthread.h"
#include "engine/checkoptions.h"
#include "engine/clipchecker.h" // kProgressMax, the unit of progress()
#include "results/checkdefaults.h"
#include "results/qcresult.h"

namespace tarvoqc {

class TaskItem;

// How the window and the watch job check, from section "Options" of the settings file:
// "Check.Level" (1..4; anything else gives 3), level 4's "Loudness.Target",
// "Loudness.Tolerance" and "TruePeak.Limit" (any of them written makes the three a loudness
// rule, see ClipCheckOptions::loudnessRule), and the limits of the check processes:
// "Check.MaxMemory" (MiB, 0 for none; negative values give the default) and
// "Check.HangTimeout" (seconds, 0 for never; negative values give the default). The
// decoder threads stay 0 (the caller's decoder thread option decides); the priority is the
// caller's.
struct CheckSettings
{
    CheckLevel level = kDefaultCheckLevel;
    ClipCheckOptions options;
    WorkerLimits worker;
    // "Check.Profile": the delivery profile by name or file (its loudness rule already in
    // options); null for none or "technical". profileError: why the one named was refused
    // (the checks then run without one).
    std::shared_ptr<const DeliveryProfile> profile{};
    std::string profileError{};
};
// watchJob: the "Job00" key "Check.Profile", when given, names the profile instead.
CheckSettings loadCheckSettings(const std::string& settingsPath, bool watchJob = false);

// Tells an owner of several runners that one of them has ended its check, so that it can
// start the next clip at once instead of at its next poll. Runners call notify() last
// thing on their worker; the owner waits in waitFor().
//
// Thread-safety: notify() from any thread; waitFor() from the owning thread.
class RunnerEndSignal
{
public:
    void notify();
    // Waits until ended() holds or timeout passed; ended() is evaluated under the signal's
    // lock (it must only read atomics). True when ended() held.
    bool waitFor(std::chrono::milliseconds timeout, const std::function<bool()>& ended);

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
};

// Checks one clip: its worker thread has a check worker process (batch/workerprocess.h)
// open, probe, read and decode the clip, and relays what the process reports. A crash,
// a runaway allocation or a hang of the media libraries ends that process only: the clip
// then gets a Critical "File" issue that says what happened ("0/5 ERROR"), and the next
// check gets a fresh process. The result stays in the runner until it is harvested.
//
// Thread-safety: created, started, polled and destroyed by one owning thread (the
// window's or the command line's). progress() and result() may be called at any time.
class CheckRunner : public WorkerThread
{
public:
    // Remembers the item by its id and copies its path; the item is not kept.
    // decoderThreadOption: below 0 single-threaded decoding, otherwise the library's choice.
    // worker: the check process's priority (idle for the window) and limits.
    // options: the limits of level 4 and the decoder threads (see ClipCheckOptions).
    CheckRunner(const TaskItem& item, CheckLevel level, int decoderThreadOption,
                const WorkerLimits& worker = {}, const ClipCheckOptions& options = {});
    // Stops the check: the stop flag, up to 2 s, then the forced abort, which kills the
    // check process. Returns within a few milliseconds of that.
    ~CheckRunner() override;

    // Starts the check. When no thread can be made the clip gets the issue "Check could
    // not be started: no thread" at once, and the runner counts as finished.
    void StartCheck();

    // True once the check has ended (or never ran): the checker is closed and its result
    // complete, though the thread may still be on its way out.
    bool checkEnded() const { return m_checkEnded.load(std::memory_order_acquire) || !IsRunning(); }
    // True once the thread is gone too, so that destroying the runner never waits: an idle
    // thread on a busy machine may take seconds to be given the processor for its last
    // steps, and the window thread must not wait for that.
    bool finished() const { return !IsRunning() && HasExited(); }

    // Notified when the check ends (not after a forced abort). Set before StartCheck; shared,
    // because a runner whose thread is held in the kernel may outlive its owner.
    void setEndSignal(std::shared_ptr<RunnerEndSignal> signal) { m_endSignal = std::move(signal); }
    // The delivery profile the finished result is graded by (null: none). Set before
    // StartCheck. The profile's loudness rule is the caller's to put into the options.
    void setProfile(std::shared_ptr<const DeliveryProfile> profile)
    {
        m_profile = std::move(profile);
    }

    std::uint64_t itemId() const { return m_itemId; }
    const std::string& path() const { return m_path; }
    std::int32_t progress() const { return m_check.progress(); }
    // The process checking the clip now; 0 before and after.
    pid_t workerPid() const { return m_check.workerPid(); }
    // What is known so far; the whole result once checkEnded(), graded by the profile.
    QcResult result() const;

protected:
    int Run() override;
    void ForceAbort() override { m_check.abort(); }

private:
    const std::uint64_t m_itemId;
    const std::string m_path;
    IsolatedCheck m_check;
    std::atomic<bool> m_checkEnded{false};
    std::shared_ptr<RunnerEndSignal> m_endSignal;
    std::shared_ptr<const DeliveryProfile> m_profile;
};

} // namespace tarvoqc
