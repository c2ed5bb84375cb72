#pragma once

#include <string>

#include "batch/watchjob.h"
#include "results/dailylog.h"

namespace tarvoqc {

// The settings a watch service runs with: section "Job00", and how deep and with which
// limits it checks from section "Options" (see loadCheckSettings), with the delivery
// profile of "Job00" or else of "Options". profileError: why the profile named could not
// be used (the job then checks without one), empty when it could.
WatchJobSettings loadWatchServiceSettings(const std::string& settingsPath,
                                          std::string* profileError = nullptr);

// The watch job as a program runs it, with or without a window: the daily log in logsFolder
// ("QC YYYY-MM-DD.log"), begun with "Start <title>" and ended with "Exit <title>", and the
// job with the settings of the settings file.
//
// Thread-safety: one owning thread; job() and log() follow their own rules.
class WatchService
{
public:
    WatchService(const std::string& settingsPath, const std::string& logsFolder);
    // Stops the job and logs "Exit <title>".
    ~WatchService();
    WatchService(const WatchService&) = delete;
    WatchService& operator=(const WatchService&) = delete;

    WatchJob& job() { return m_job; }
    DailyLog& log() { return m_log; }
    // Reads the settings file again into the job (a running worker takes them at its next
    // pass once Start hands them over).
    void reloadSettings();

    // Runs the job until SIGTERM or SIGINT (SIGHUP reads the settings file again), or, with
    // once, for one pass. Blocks those signals in the whole process (call it before other
    // threads start, so that they inherit the mask) and waits for them on this thread. A
    // check still running 2 s after the signal is ended by force. Gives the exit status: 0.
    int run(bool once);

private:
    const std::string m_settingsPath;
    DailyLog m_log;
    WatchJob m_job{&m_log};
};

} // namespace tarvoqc
