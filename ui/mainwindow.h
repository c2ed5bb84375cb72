#pragma once

#include <QTimer>
#include <chrono>
#include <memory>

#include "batch/runcontroller.h"
#include "batch/tasklist.h"
#include "ui/controlkit.h"

class QMenu;

namespace tarvoqc {

class TaskListModel;

// Control ids of the main window.
enum MainWindowId : int {
    kIdFileButton = 120,
    kIdClearButton = 122,
    kIdHelpButton = 130,
    kIdTaskGrid = 450,
    kIdIssueTree = 451,
    kIdProgressBar = 500,
    kIdCheckAll = 602,
    kIdCheckSelected = 603,
    kIdGrip = 601,
    kIdTitleCell = 150,
    kIdStatusCell = 151,
    kIdClockCell = 155,
};
// Menu entries.
enum MainMenuId : int {
    kMenuOpenClips = 1,
    kMenuOpenPlaylists = 2,
    kMenuSaveReport = 10,
    kMenuExit = 256,
    kMenuClearFinished = 1,
    kMenuClearAll = 2,
    kMenuAbout = 100,
};

inline constexpr int kMainWindowWidth = 624;
inline constexpr int kMainWindowHeight = 442;
inline constexpr int kBarHeight = 20;
// The grip keeps this far from the top and the bottom of the window.
inline constexpr int kGripMargin = 128;
inline constexpr int kGripInitialTop = 230;
inline constexpr int kClockPeriodMs = 1000; // timer 700
inline constexpr int kRunnerPeriodMs = 100; // timer 701
// How long the window waits after a harvest for the next check to end (see onRunnerTimer).
inline constexpr std::chrono::milliseconds kQuickFollowWait{5};

struct MainWindowOptions
{
    bool commandLineMode = false; // checking starts at once and the window closes when done
    bool hide = false;            // never shown
    CheckLevel level = 3;
    ClipCheckOptions check{}; // level 4's limits; the decoder threads stay the window's option
    WorkerSpec worker{};      // the check processes' limits; they run at idle priority
};

// The program's working window: the task grid over the TaskList, the issues of the
// selected clip grouped by category, a progress bar, the run status and a clock, and the
// commands that add clips, clear the list and start checks. It owns the list, the run
// controller (one runner at a time, at idle priority, each clip opened as Open(path, 3, 2))
// and polls it every 100 ms; the window thread never waits for a clip except when it is
// destroyed during a check (the runner's stop: at most about 2 s, then the forced abort).
//
// Thread-safety: the window thread only.
class MainWindow : public CWDlgClass
{
    Q_OBJECT

public:
    explicit MainWindow(MainWindowOptions options = {}, QWidget* parent = nullptr);
    ~MainWindow() override;

    TaskList& taskList() { return m_list; }
    RunController& controller() { return *m_controller; }
    bool commandLineMode() const { return m_options.commandLineMode; }

    // Makes it a command-line run (before runModal).
    void setCommandLineMode(bool on) { m_options.commandLineMode = on; }
    void setHide(bool hide) { m_options.hide = hide; }

    // The rest of the initialisation once the list is filled: in command-line mode an
    // empty list leaves the window waiting to be closed (no timers); otherwise checking
    // of all items starts; then the clock and runner timers. Called by runModal.
    void start();
    // start(), then the modal run (shown unless hidden); gives the dialog's result.
    int runModal();

    // Adds files as the open dialog and a drop do, raising the over-limit warning.
    void addFiles(int row, const std::vector<std::string>& paths);
    void dropFiles(int row, const std::vector<std::string>& paths);

    // One 100 ms tick of the runner timer (also called by tests).
    void onRunnerTimer();
    void onClockTimer();

    bool timersRunning() const { return m_runnerTimer.isActive() && m_clockTimer.isActive(); }

    // The About box (modal).
    void showAbout();

    // The clock texts: at creation with dashes, from the first tick with dots.
    static QString clockText(bool firstTickDone);

protected:
    void onCommand(int id) override;
    void closeDialog() override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void createControls();
    void layoutControls();
    void openClips();
    void refreshIssues();
    void updateCheckSelected();
    void onMenu(int button, int entry);
    QMenu* addMenu(CMkButton* button, std::initializer_list<std::pair<int, const char*>> entries);

    MainWindowOptions m_options;
    TaskList m_list;
    std::unique_ptr<RunController> m_controller;
    TaskListModel* m_model = nullptr;

    QWidget* m_commandBar = nullptr;
    QWidget* m_lowerBar = nullptr;
    CMaGrid* m_grid = nullptr;
    CxTree* m_tree = nullptr;
    CMkProgressBar* m_progress = nullptr;
    Grip* m_grip = nullptr;
    CMkStatusBar* m_statusBar = nullptr;
    CMkButton* m_checkSelected = nullptr;

    QTimer m_clockTimer;
    QTimer m_runnerTimer;
};

} // namespace tarvoqc
