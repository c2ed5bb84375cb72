#pragma once

#include <QTimer>
#include <memory>
#include <string>

#include "batch/watchjob.h"
#include "results/dailylog.h"
#include "ui/controlkit.h"

class QMenu;
class QSystemTrayIcon;

namespace tarvoqc {

// Command ids of the job window and its tray menu.
inline constexpr int kIdTest01 = 300;
inline constexpr int kCommandJobSetup = 260;
inline constexpr int kCommandCloseAndExit = 261;
inline constexpr int kTrayIconId = 21121;
inline constexpr int kJobTimerId = 101;
inline constexpr int kTrayTipMaxChars = 127;

// The tray icon's tip: the title cut to 127 characters.
QString trayTip(const QString& title);
// What the job is doing, for the lines of the tip under the title: "Not running",
// "Disabled", "Checking <clip> (<n>%)" or "Waiting for clips in <folder>"; then, once there
// are results, "Last: GOOD|BAD <clip> (<score text>)" and the counts ("Checked 3, moved 2",
// with ", 1 move failed" when moves failed). Clip and folder names longer than 60
// characters lose their middle. enabled: the job's settings say it is enabled; folder: the
// watched folder.
QString watchStateText(const WatchJobStatus& status, bool enabled, const std::string& folder);

// The "Setup Watch Job" dialog (414 x 354) over a copy of the job's settings. OK is
// accepted only when the job is disabled, or when it has a source folder and a folder for
// every move switched on; otherwise OK is ignored without a word.
class WatchJobSetupDialog : public CWDlgClass
{
    Q_OBJECT

public:
    // Control ids.
    enum : int {
        kIdStatus = 401,
        kIdInputField = 402,
        kIdInputPick = 403,
        kIdAction = 404,
        kIdThreshold = 405,
        kIdGoodToggle = 406,
        kIdGoodField = 407,
        kIdGoodPick = 408,
        kIdBadToggle = 409,
        kIdBadField = 410,
        kIdBadPick = 411,
    };

    explicit WatchJobSetupDialog(const WatchJobSettings& settings, QWidget* parent = nullptr);

    // The settings as the dialog shows them now.
    const WatchJobSettings& settings() const { return m_settings; }
    // The threshold's popup menu ("Any clip", a separator, "1/5 Very BAD" .. "5/5 OK").
    QMenu* thresholdMenu() const { return m_thresholdMenu; }

    // The threshold's caption: "Any clip", a score text, or nothing out of range.
    static QString thresholdText(int threshold);

protected:
    void onCommand(int id) override;

private:
    void showSettings();
    // A folder field shows the end of its path (the part that tells folders apart) when the
    // whole does not fit; its tip shows it whole.
    void showFolder(int fieldId, const std::string& folder);
    bool acceptable() const;

    WatchJobSettings m_settings;
    QMenu* m_thresholdMenu = nullptr;
};

// The job window: hidden, it owns the watch job, puts the program's icon into the tray
// (where the desktop has one) with the menu "Job setup" / "Close and Exit", and writes
// "Start " and "Exit " with the title into the daily log in "LogsQC" beside the settings.
// Command 300 (its "Test01" button) starts the job.
//
// Every second (its timer 101) the tip follows the job: the title, then watchStateText.
// New BAD results since the last tick raise one notice (badClipNotice), which the tray
// shows as a desktop notification where it offers them; without a tray nothing is shown.
//
// Thread-safety: the window thread only.
class WatchJobWindow : public CWDlgClass
{
    Q_OBJECT

public:
    explicit WatchJobWindow(QWidget* parent = nullptr);
    // Removes the icon, stops the job (its worker ends), then logs "Exit ".
    ~WatchJobWindow() override;

    WatchJob& job() { return *m_job; }
    DailyLog& log() { return m_log; }
    const QString& title() const { return m_title; }
    // Null where the desktop has no tray (a server, or no display at all).
    QSystemTrayIcon* trayIcon() const { return m_tray; }
    QMenu* trayMenu() const { return m_trayMenu; }
    bool timerRunning() const { return m_timer.isActive(); }
    // The tip as it stands (also kept where there is no tray icon to show it).
    const QString& tip() const { return m_tip; }

    // "Job setup": the dialog on a copy of the settings; after OK the seven keys are
    // written and setupAccepted() is told.
    void runSetup();

    // "Close and Exit" and a close request: the icon goes, the job stops, "Exit " is
    // logged and the window's run ends.
    void closeDialog() override;

signals:
    void setupAccepted();
    // New BAD results since the last tick: title "BAD clip", or "<n> BAD clips" for
    // several; message "<score text> <path>" of the newest result when it is BAD, else
    // "See the daily log in <folder>".
    void badClipNotice(const QString& title, const QString& message);

protected:
    void onCommand(int id) override;

private:
    void shutDown();
    // The timer's tick: the tip, and the notice of new BAD results.
    void followJob();

    DailyLog m_log;
    std::unique_ptr<WatchJob> m_job;
    QString m_title;
    QSystemTrayIcon* m_tray = nullptr;
    QMenu* m_trayMenu = nullptr;
    QTimer m_timer;
    QString m_tip;
    std::uint64_t m_badSeen = 0; // the job's BAD results already told
    bool m_shutDown = false;
};

} // namespace tarvoqc
