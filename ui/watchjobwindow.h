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

    // "Job setup": the dialog on a copy of the settings; after OK the seven keys are
    // written and setupAccepted() is told.
    void runSetup();

    // "Close and Exit" and a close request: the icon goes, the job stops, "Exit " is
    // logged and the window's run ends.
    void closeDialog() override;

signals:
    void setupAccepted();

protected:
    void onCommand(int id) override;

private:
    void shutDown();

    DailyLog m_log;
    std::unique_ptr<WatchJob> m_job;
    QString m_title;
    QSystemTrayIcon* m_tray = nullptr;
    QMenu* m_trayMenu = nullptr;
    QTimer m_timer;
    bool m_shutDown = false;
};

} // namespace tarvoqc
