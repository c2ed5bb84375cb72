#include "batch/checkrunner.h"

#include "batch/tasklist.h"
#include "settings/profilestore.h"

namespace tarvoqc {

CheckSettings loadCheckSettings(const std::string& settingsPath, bool watchJob)
{
    CheckSettings settings;
    if (const int level = readSettingNumber(settingsPath, kCheckLevel); level >= 1 && level <= 4) {
        settings.level = level;
    }
    settings.options.loudnessTarget = readSettingDecimal(settingsPath, kLoudnessTarget);
    settings.options.loudnessTolerance = readSettingDecimal(settingsPath, kLoudnessTolerance);
    settings.options.truePeakLimit = readSettingDecimal(settingsPath, kTruePeakLimit);
    // A loudness limit written into the file is a rule the site chose: loudness is then
    // graded by it, not only told.
    for (const SettingKey* key : {&kLoudnessTarget, &kLoudnessTolerance, &kTruePeakLimit}) {
        constexpr std::string_view kAbsent = "\x01";
        settings.options.loudnessRule =
            settings.options.loudnessRule ||
            readProfileString(settingsPath, key->section, key->key, kAbsent) != kAbsent;
    }
    std::string name = watchJob ? readSettingText(settingsPath, kJobProfile) : std::string();
    if (name.empty()) {
        name = readSettingText(settingsPath, kCheckProfile);
    }
    if (!name.empty()) {
        std::string error;
        if (auto profile = findDeliveryProfile(name, error)) {
            applyProfileOptions(*profile, settings.options);
            if (!profile->technical()) {
                settings.profile = std::make_shared<const DeliveryProfile>(std::move(*profile));
            }
        } else {
            settings.profileError = error;
        }
    }
    if (const int mib = readSettingNumber(settingsPath, kCheckMaxMemory); mib >= 0) {
        settings.worker.memoryLimitBytes = static_cast<std::uint64_t>(mib) * 1024 * 1024;
    }
    if (const int seconds = readSettingNumber(settingsPath, kCheckHangTimeout); seconds >= 0) {
        settings.worker.hangTimeout = std::chrono::seconds(seconds);
    }
    return settings;
}

namespace {

// Request ids only need to tell the checks of one program apart.
std::uint64_t nextRequestId()
{
    static std::atomic<std::uint64_t> last{0};
    return last.fetch_add(1) + 1;
}

} // namespace

CheckRunner::CheckRunner(const TaskItem& item, CheckLevel level, int decoderThreadOption,
                         const WorkerLimits& worker, const ClipCheckOptions& options)
    : m_itemId(item.id()), m_path(item.path()),
      m_check(CheckRequest{nextRequestId(), item.path(), level, decoderThreadOption, options},
              worker)
{
    // The thread only relays what the check process reports; the process runs at the
    // priority asked for. At idle priority on a busy machine the relay would be slow to
    // hand over a finished check.
    setStartPriority(kThreadPriorityNormal);
}

CheckRunner::~CheckRunner()
{
    Stop();
}

QcResult CheckRunner::result() const
{
    QcResult result = m_check.snapshot();
    if (m_profile != nullptr && checkEnded()) {
        applyDeliveryProfile(*m_profile, result);
    }
    return result;
}

void CheckRunner::StartCheck()
{
    m_checkEnded.store(false, std::memory_order_relaxed);
    if (!Start()) {
        m_check.refuse("Check could not be started: no thread");
    }
}

int CheckRunner::Run()
{
    m_check.run(stopFlag());
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
