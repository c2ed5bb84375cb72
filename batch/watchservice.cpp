#include "batch/watchservice.h"

#include <csignal>
#include <thread>

#include <pthread.h>

#include "batch/checkrunner.h"
#include "files/fileio.h"

namespace tarvoqc {

WatchJobSettings loadWatchServiceSettings(const std::string& settingsPath,
                                          std::string* profileError)
{
    WatchJobSettings settings = loadWatchJobSettings(settingsPath);
    const CheckSettings check = loadCheckSettings(settingsPath, true);
    settings.checkLevel = check.level;
    settings.check = check.options;
    settings.profile = check.profile;
    if (profileError != nullptr) {
        *profileError = check.profileError;
    }
    settings.worker.memoryLimitBytes = check.worker.memoryLimitBytes;
    settings.worker.hangTimeout = check.worker.hangTimeout;
    return settings;
}

WatchService::WatchService(const std::string& settingsPath, const std::string& logsFolder)
    : m_settingsPath(settingsPath)
{
    makeFolders(logsFolder);
    m_log.setFolder(logsFolder, "QC ");
    m_log.setEnabled(1);
    m_log.writeNow("Start " + titleText());
    reloadSettings();
}

WatchService::~WatchService()
{
    m_job.Stop();
    m_log.writeNow("Exit " + titleText());
}

void WatchService::reloadSettings()
{
    std::string profileError;
    m_job.setSettings(loadWatchServiceSettings(m_settingsPath, &profileError));
    if (!profileError.empty()) {
        m_log.writeNow("Profile not used: " + profileError);
    }
}

int WatchService::run(bool once)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (!once) {
        m_job.Start();
        for (;;) {
            int signal = 0;
            if (::sigwait(&signals, &signal) != 0 || signal != SIGHUP) {
                break;
            }
            reloadSettings();
            m_job.Start(); // the running worker takes the new settings at its next pass
        }
        m_job.Stop();
        return 0;
    }
    // One pass on this thread; a signal thread stops it.
    std::atomic<bool> done{false};
    std::thread stopper([&] {
        const timespec poll = {0, 100'000'000};
        while (!done.load()) {
            if (::sigtimedwait(&signals, nullptr, &poll) > 0) {
                m_job.requestStop();
                const auto until = std::chrono::steady_clock::now() + WatchJob::kStopWait;
                while (!done.load() && std::chrono::steady_clock::now() < until) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
                if (!done.load()) {
                    m_job.abortCheck();
                }
            }
        }
    });
    m_job.RunOnePass();
    done.store(true);
    stopper.join();
    return 0;
}

} // namespace tarvoqc
