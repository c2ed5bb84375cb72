#include "batch/checkrunner.h"

#include "batch/tasklist.h"
#include "settings/profilestore.h"

namespace tarvoqc {

CheckSettings loadCheckSettings(const std::string& settingsPath)
{
    CheckSettings settings;
    if (const int level = readSettingNumber(settingsPath, kCheckLevel); level >= 1 && level <= 4) {
        settings.level = level;
    }
    settings.options.loudnessTarget = readSettingDecimal(settingsPath, kLoudnessTarget);
    settings.options.loudnessTolerance = readSettingDecimal(settingsPath, kLoudnessTolerance);
    settings.options.truePeakLimit = readSettingDecimal(settingsPath, kTruePeakLimit);
    return settings;
}

CheckRunner::CheckRunner(const TaskItem& item, CheckLevel level, int decoderThreadOption,
                         int priority, const ClipCheckOptions& options)
    : m_itemId(item.id()), m_path(item.path()), m_level(level),
      m_decoderThreadOption(decoderThreadOption), m_priority(priority)
{
    setStartPriority(priority);
    m_checker.setOptions(options);
}

CheckRunner::~CheckRunner()
{
    StopAndWait();
    m_checker.Close();
}

void CheckRunner::StartCheck()
{
    m_checker.setInterruptFlag(stopFlag());
    m_checkEnded.store(false, std::memory_order_relaxed);
    if (Start()) {
        SetPriority(m_priority);
        return;
    }
    m_checker.Open(m_path, m_level, m_decoderThreadOption);
    m_checker.Close();
}

// Everything the check holds lives in m_checker, never in this frame: a forced abort may
// leave the thread from inside Open or Run (see WorkerThread), and the destructor then
// frees it all.
int CheckRunner::Run()
{
    if (m_checker.Open(m_path, m_level, m_decoderThreadOption)) {
        m_checker.Run(stopFlag());
    }
    m_checker.Close();
    m_checkEnded.store(true, std::memory_order_release);
    if (m_endSignal != nullptr) {
        m_endSignal->notify();
    }
    return 0;
}

void RunnerEndSignal::notify()
{
    // Taking the lock orders the notification after the waiter's look at ended(): a wakeup
    // cannot fall between that look and its wait.
    {
        const std::lock_guard lock(m_lock);
    }
    m_changed.notify_all();
}

bool RunnerEndSignal::waitFor(std::chrono::milliseconds timeout, const std::function<bool()>& ended)
{
    std::unique_lock lock(m_lock);
    return m_changed.wait_for(lock, timeout, ended);
}

} // namespace tarvoqc
