#pragma once

#include <QDateTime>
#include <QTimer>
#include <chrono>
#include <memory>
#include <optional>
#include <unordered_map>

#include "batch/runcontroller.h"
#include "batch/tasklist.h"
#include "results/checkdefaults.h"
#include "ui/controlkit.h"

class QActionGroup;
class QLabel;
class QMenu;
class QProcess;
class QSplitter;
class QTextEdit;

namespace tarvoqc {

class ClipTimeline;
class TaskListModel;
class TaskListProxy;
enum class GridOrder;

// Control ids of the main window.
enum MainWindowId : int {
    kIdFileButton = 120,
    kIdClearButton = 122,
    kIdViewButton = 124,
    kIdOptionsButton = 126,
    kIdHelpButton = 130,
    kIdTaskGrid = 450,
    kIdIssueTree = 451,
    kIdFactsPanel = 452,
    kIdTimeline = 453,
    kIdIssuePicture = 454,
    kIdProgressBar = 500,
    kIdCheckAll = 602,
    kIdCheckSelected = 603,
    kIdStop = 604,
    kIdListSummary = 605,
    kIdGrip = 601,
    kIdTitleCell = 150,
    kIdStatusCell = 151,
    kIdClockCell = 155,
};
// Menu entries, per button.
enum MainMenuId : int {
    kMenuOpenClips = 1,
    kMenuOpenPlaylists = 2,
    kMenuSaveReport = 10,
    kMenuExit = 256,
    kMenuClearFinished = 1,
    kMenuClearAll = 2,
    kMenuListOrder = 1,
    kMenuByStatus = 2,
    kMenuByPath = 3,
    kMenuBelowPassing = 10,
    kMenuAbout = 100,
};
// Commands of the keyboard shortcuts that have no button of their own.
inline constexpr int kCommandOpenClips = 1001;
inline constexpr int kCommandSaveReport = 1002;

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

// The status cell's text after the operator stopped a run.
inline constexpr std::string_view kStatusStopped = "Stopped";

struct MainWindowOptions
{
    bool commandLineMode = false; // checking starts at once and the window closes when done
    bool hide = false;            // never shown
    CheckLevel level = kDefaultCheckLevel;
    ClipCheckOptions check{}; // level 4's limits; the decoder threads stay the window's option
    WorkerLimits worker{};    // the check processes' limits; they run at idle priority
    // The delivery profile results are graded by (its loudness rule in check); null: none.
    std::shared_ptr<const DeliveryProfile> profile{};
};

// The program's working window: the task grid over the TaskList, the issues and facts of
// the selected clip, a progress bar, the run status and a clock, and the commands that add
// clips, clear the list and start and stop checks. It owns the list, the run controller
// (one runner at a time, at idle priority) and polls it every 100 ms; the window thread
// never waits for a clip except when a check is stopped (the operator's Stop, a change of
// the check level, or the window's destruction: the runner's stop, at most about 2 s, then
// the forced abort).
//
// Keyboard: Alt and the underlined letter open the command bar's menus; Ctrl+O opens clips,
// Ctrl+S saves the report, F5 checks all, Ctrl+F5 checks the selected clip again, Shift+F5
// stops; in the grid Delete removes the selected clip, Ctrl+C copies its path and the menu
// key or Shift+F10 opens its row menu. Escape never closes the window: only "Exit" and the
// close box do.
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
    CheckLevel checkLevel() const { return m_options.level; }

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

    // Ends the run: the running check is stopped (stop flag, then the forced abort) and
    // keeps no result; the items checked so far keep theirs.
    void stopRun();
    // The check level of the next checks, stored as "Options" key "Check.Level"; a run in
    // progress finishes at its own level.
    void setCheckLevel(CheckLevel level);
    // The delivery profile of the next checks by name (empty or "technical": none), stored
    // as "Options" key "Check.Profile"; the loudness limits follow the settings and the
    // profile. A run in progress finishes with its own. False when the profile does not
    // load (the operator is told; nothing changes).
    bool setProfile(const std::string& name);
    const std::shared_ptr<const DeliveryProfile>& profile() const { return m_options.profile; }
    // Writes the list's result document (the job result document, ".qcout") to path;
    // false when it could not be written.
    bool saveReport(const std::string& path) const;

    // The grid's order and filter (the list's own order never changes).
    void setGridOrder(GridOrder order, Qt::SortOrder direction = Qt::AscendingOrder);
    void setBelowPassingOnly(bool on);

    // The row menu of the grid (Check again, Remove, Copy path, Open containing folder).
    QMenu* rowMenu() const { return m_rowMenu; }

    // The About box (modal).
    void showAbout();

    // The clock texts: at creation with dashes, from the first tick with dots.
    static QString clockText(bool firstTickDone);

protected:
    void onCommand(int id) override;
    void closeDialog() override;
    // Escape does nothing here.
    void reject() override;
    void resizeEvent(QResizeEvent* event) override;

private:
    std::unique_ptr<RunController> makeController();
    bool controllerIdle() const;
    void createControls();
    void createGrid();
    void createMenus(CMkButton* file, CMkButton* clear, CMkButton* view, CMkButton* options,
                     CMkButton* help);
    void layoutControls();
    void openClips();
    void saveReportAs();
    void refreshSelection();
    void refreshCommands();
    void refreshSummary();
    void forgetRemovedItems();
    void updateChecking();
    void onMenu(int button, int entry);
    void onHeaderClicked(int column);
    void showRowMenu(const QPoint& at);
    // The list row of the grid's selection, -1 when none.
    int selectedListRow() const;
    void selectListRow(int row);
    void removeSelected();
    // The selected issue (an index into the shown result's issues, -1 none) on the
    // timeline, and its picture when it has a place in a video stream.
    void showIssue(int issue);
    void requestPicture(const std::string& path, double seconds);
    void clearFinished();
    QMenu* addMenu(CMkButton* button, std::initializer_list<std::pair<int, const char*>> entries);

    MainWindowOptions m_options;
    TaskList m_list;
    std::unique_ptr<RunController> m_controller;
    bool m_controllerStale = false;          // the level changed during a run: a new one when idle
    int m_gripPlacedFor = kMainWindowHeight; // the window height the grip's top was set for
    TaskListModel* m_model = nullptr;
    TaskListProxy* m_proxy = nullptr;
    std::optional<std::uint64_t> m_checkingId;
    std::unordered_map<std::uint64_t, QDateTime> m_checkedAt; // by item id

    QWidget* m_commandBar = nullptr;
    QWidget* m_lowerBar = nullptr;
    CMaGrid* m_grid = nullptr;
    QSplitter* m_lowerPane = nullptr;
    CxTree* m_tree = nullptr;
    QTextEdit* m_facts = nullptr;
    ClipTimeline* m_timeline = nullptr;
    QLabel* m_picture = nullptr;
    QProcess* m_pictureReader = nullptr; // the worker taking the selected issue's picture
    CMkProgressBar* m_progress = nullptr;
    Grip* m_grip = nullptr;
    CMkStatusBar* m_statusBar = nullptr;
    CMkButton* m_checkSelected = nullptr;
    CMkButton* m_stop = nullptr;
    QLabel* m_summary = nullptr;
    QMenu* m_fileMenu = nullptr;
    QMenu* m_viewMenu = nullptr;
    QMenu* m_rowMenu = nullptr;
    QActionGroup* m_levels = nullptr;
    QActionGroup* m_profiles = nullptr;
    QActionGroup* m_orders = nullptr;
    QAction* m_belowPassing = nullptr;

    QTimer m_clockTimer;
    QTimer m_runnerTimer;
};

} // namespace tarvoqc
