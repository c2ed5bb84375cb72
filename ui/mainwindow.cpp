#include "ui/mainwindow.h"

#include <QActionGroup>
#include <QClipboard>
#include <QDesktopServices>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QProcess>
#include <QResizeEvent>
#include <QSplitter>
#include <QTextEdit>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <ctime>
#include <utility>

#include "batch/workerprocess.h"
#include "results/dailylog.h"
#include "results/resultfile.h"
#include "results/xmlnode.h"
#include "settings/profilestore.h"
#include "tarvoqc/version.h"
#include "ui/cliptimeline.h"
#include "ui/programicon.h"
#include "ui/resultpanes.h"
#include "ui/tasklistmodel.h"

namespace tarvoqc {

namespace {

// The open dialog's filters, description and patterns, in order.
const char* const kClipFilters[] = {
    "Clips (*.avi;*.mpg;*.mpeg;*.m2p;*.m2v;*.m2t;*.m2ts;*.mp4;*.m4v;*.ts;*.mov;*.flv;*.f4v;*.wmv;"
    "*.mkv;*.mxf;*.swf)|*.avi;*.mpg;*.mpeg;*.m2p;*.m2v;*.m2t;*.m2ts;*.mp4;*.m4v;*.ts;*.mov;*.flv;"
    "*.f4v;*.wmv;*.mkv;*.mxf;*.swf",
    "Audio (*.wav;*.mp3)|*.wav;*.mp3",
    "AVI Clips (*.avi)|*.avi",
    "FLV Clips (*.flv;*.f4v)|*.flv;*.f4v",
    "SWF Clips (*.swf)|*.swf",
    "WMV Clips (*.wmv)|*.wmv",
    "MPEG Clips (*.mpg;*.mpeg;*.m2p;*.m2v;*.m2t;*.m2ts;*.mp4;*.m4v;*.ts)|*.mpg;*.mpeg;*.m2p;*.m2v;"
    "*.m2t;*.m2ts;*.mp4;*.m4v;*.ts",
};

QString fromUtf8(std::string_view text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// The selected issue's picture: its width in pixels, and how long its reader may take.
constexpr int kIssuePictureWidth = 160;
constexpr int kPictureTimeout = 20000; // ms

} // namespace

MainWindow::MainWindow(MainWindowOptions options, QWidget* parent)
    : CWDlgClass(parent), m_options(std::move(options))
{
    setKitMainWindow(this);
    setWindowFlags(Qt::Window | Qt::WindowMinMaxButtonsHint | Qt::WindowCloseButtonHint);
    setWindowTitle(fromUtf8(kProductTitle));
    setWindowIcon(programIcon());
    resize(kMainWindowWidth, kMainWindowHeight);

    m_controller = makeController();

    createControls();
    setPlacementName(QStringLiteral("MAIN"), true);
    restorePlacement();
    layoutControls();

    connect(&m_clockTimer, &QTimer::timeout, this, &MainWindow::onClockTimer);
    connect(&m_runnerTimer, &QTimer::timeout, this, &MainWindow::onRunnerTimer);
}

MainWindow::~MainWindow()
{
    m_runnerTimer.stop();
    m_clockTimer.stop();
    // Stops a running check: stop flag, at most about 2 s, then the forced abort.
    m_controller.reset();
    // A picture still being taken ends with the window, and tells it nothing more.
    requestPicture({}, 0);
    m_grid->setModel(nullptr);
    delete m_proxy;
    m_proxy = nullptr;
    delete m_model;
    m_model = nullptr;
    if (kitMainWindow() == this) {
        setKitMainWindow(nullptr);
    }
}

std::unique_ptr<RunController> MainWindow::makeController()
{
    RunControllerOptions runOptions;
    runOptions.level = m_options.level;
    runOptions.decoderThreadOption = 2;
    runOptions.maxRunners = 1;
    runOptions.priority = kThreadPriorityIdle;
    runOptions.check = m_options.check;
    runOptions.check.decoderThreads = 0;
    runOptions.memoryLimitBytes = m_options.worker.memoryLimitBytes;
    runOptions.hangTimeout = m_options.worker.hangTimeout;
    runOptions.profile = m_options.profile;
    return std::make_unique<RunController>(m_list, runOptions);
}

bool MainWindow::controllerIdle() const
{
    return m_controller->state() == RunState::Idle && !m_controller->busy();
}

QMenu* MainWindow::addMenu(CMkButton* button,
                           std::initializer_list<std::pair<int, const char*>> entries)
{
    auto* menu = new QMenu(button);
    for (const auto& [id, text] : entries) {
        if (id == 0) {
            menu->addSeparator();
            continue;
        }
        QAction* action = menu->addAction(QString::fromUtf8(text));
        action->setData(id);
        const int buttonId = kitId(button);
        connect(action, &QAction::triggered, this,
                [this, buttonId, entry = id] { onMenu(buttonId, entry); });
    }
    button->setMenu(menu);
    return menu;
}

namespace {

QAction* entry(QMenu* menu, int id)
{
    for (QAction* action : menu->actions()) {
        if (!action->isSeparator() && action->data().toInt() == id) {
            return action;
        }
    }
    return nullptr;
}

// Shows the key beside a menu entry; the key itself is handled by the window.
void showKey(QAction* action, const QKeySequence& key)
{
    action->setShortcut(key);
    action->setShortcutContext(Qt::WidgetShortcut);
}

} // namespace

void MainWindow::createMenus(CMkButton* file, CMkButton* clear, CMkButton* view, CMkButton* options,
                             CMkButton* help)
{
    m_fileMenu = addMenu(file, {{kMenuOpenClips, "Open Clips"},
                                {kMenuOpenPlaylists, "Open Playlists"},
                                {0, ""},
                                {kMenuSaveReport, "Save report"},
                                {0, ""},
                                {kMenuExit, "Exit"}});
    // Playlists are not offered: shown greyed.
    entry(m_fileMenu, kMenuOpenPlaylists)->setEnabled(false);
    showKey(entry(m_fileMenu, kMenuOpenClips), QKeySequence(Qt::CTRL | Qt::Key_O));
    showKey(entry(m_fileMenu, kMenuSaveReport), QKeySequence(Qt::CTRL | Qt::Key_S));
    addMenu(clear, {{kMenuClearFinished, "Clear finished"}, {0, ""}, {kMenuClearAll, "Clear all"}});

    m_viewMenu = addMenu(view, {{kMenuListOrder, "List order"},
                                {kMenuByStatus, "By status, worst first"},
                                {kMenuByPath, "By path"},
                                {0, ""},
                                {kMenuBelowPassing, "Only clips below 3/5 Playable"}});
    m_orders = new QActionGroup(m_viewMenu);
    for (int id : {kMenuListOrder, kMenuByStatus, kMenuByPath}) {
        QAction* action = entry(m_viewMenu, id);
        action->setCheckable(true);
        m_orders->addAction(action);
    }
    entry(m_viewMenu, kMenuListOrder)->setChecked(true);
    m_belowPassing = entry(m_viewMenu, kMenuBelowPassing);
    m_belowPassing->setCheckable(true);

    QMenu* levels = addMenu(options, {{1, "Check level 1: open and header"},
                                      {2, "Check level 2: also every packet, and the keys"},
                                      {3, "Check level 3: also decode every frame"},
                                      {4, "Check level 4: also picture and sound checks"}});
    m_levels = new QActionGroup(levels);
    for (QAction* action : levels->actions()) {
        action->setCheckable(true);
        action->setChecked(action->data().toInt() == m_options.level);
        m_levels->addAction(action);
    }
    // The delivery profiles found, by name; "technical" (none) first.
    levels->addSeparator();
    QMenu* profiles = levels->addMenu(QStringLiteral("Delivery profile"));
    m_profiles = new QActionGroup(profiles);
    const std::string current =
        kitSettings() != nullptr ? readSettingText(kitSettings()->name(), kCheckProfile) : "";
    const auto addProfile = [&](const std::string& key, const std::string& text,
                                const std::string& tip) {
        QAction* action = profiles->addAction(fromUtf8(text));
        action->setToolTip(fromUtf8(tip));
        action->setCheckable(true);
        action->setChecked(key == current || (key == "technical" && current.empty()));
        action->setData(fromUtf8(key));
        m_profiles->addAction(action);
        connect(action, &QAction::triggered, this, [this, key] {
            // A profile that does not load leaves the one in use checked.
            const std::string inUse =
                setProfile(key) ? key
                : m_options.profile != nullptr
                    ? QFileInfo(fromUtf8(m_options.profile->file)).completeBaseName().toStdString()
                    : std::string("technical");
            for (QAction* entry : m_profiles->actions()) {
                entry->setChecked(entry->data().toString().toStdString() == inUse);
            }
        });
    };
    addProfile("technical", "technical: no format rules, loudness as information", "");
    for (const DeliveryProfile& profile : listDeliveryProfiles()) {
        const std::string key = QFileInfo(fromUtf8(profile.file)).completeBaseName().toStdString();
        if (key != "technical") {
            addProfile(key, profile.name, profile.description);
        }
    }
    addMenu(help, {{kMenuAbout, "About"}});
}

void MainWindow::createGrid()
{
    m_grid = new CMaGrid(kIdTaskGrid, this);
    m_model = new TaskListModel(m_list);
    m_proxy = new TaskListProxy(*m_model);
    m_grid->setModel(m_proxy);
    m_grid->setTextElideMode(Qt::ElideMiddle);
    QHeaderView* header = m_grid->header();
    header->setSectionResizeMode(TaskListModel::PathColumn, QHeaderView::Stretch);
    // At least 80 pixels, and wide enough for every status text.
    const QFontMetrics metrics = m_grid->fontMetrics();
    header->resizeSection(TaskListModel::StatusColumn,
                          std::max({80, metrics.horizontalAdvance(QStringLiteral("1/5 Very BAD")),
                                    metrics.horizontalAdvance(QStringLiteral("50000 of 50000"))}) +
                              16);
    header->setSectionsClickable(true);
    header->setSortIndicatorShown(true);
    header->setSortIndicator(-1, Qt::AscendingOrder);
    connect(header, &QHeaderView::sectionClicked, this, &MainWindow::onHeaderClicked);
    m_grid->setItemDelegateForColumn(TaskListModel::StatusColumn, new StatusCellDelegate(m_grid));
    m_grid->setDropHandler(
        [](const std::vector<std::string>& paths) { return TaskList::CanAccept(paths); },
        [this](int row, const std::vector<std::string>& paths) {
            const int listRow = m_proxy->listRow(row);
            dropFiles(listRow < 0 ? static_cast<int>(m_list.size()) : listRow, paths);
        });
    connect(m_grid->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { refreshSelection(); });
    connect(m_model, &QAbstractItemModel::modelReset, this, [this] {
        forgetRemovedItems();
        refreshSelection();
        refreshSummary();
    });
    connect(m_model, &QAbstractItemModel::rowsRemoved, this, [this] {
        forgetRemovedItems();
        refreshCommands();
        refreshSummary();
    });
    connect(m_model, &QAbstractItemModel::rowsInserted, this, [this] {
        refreshCommands();
        refreshSummary();
    });

    // The row menu, by the mouse, the menu key or Shift+F10.
    m_rowMenu = new QMenu(m_grid);
    QAction* again = m_rowMenu->addAction(QStringLiteral("Check again"), this, [this] {
        m_controller->CheckSelected(selectedListRow());
        updateChecking();
        refreshCommands();
    });
    showKey(again, QKeySequence(Qt::CTRL | Qt::Key_F5));
    QAction* remove =
        m_rowMenu->addAction(QStringLiteral("Remove"), this, [this] { removeSelected(); });
    QAction* copy = m_rowMenu->addAction(QStringLiteral("Copy path"), this, [this] {
        if (const int row = selectedListRow(); row >= 0) {
            QGuiApplication::clipboard()->setText(
                QFile::decodeName(m_list.item(static_cast<std::size_t>(row)).path().c_str()));
        }
    });
    m_rowMenu->addAction(QStringLiteral("Open containing folder"), this, [this] {
        if (const int row = selectedListRow(); row >= 0) {
            const QFileInfo clip(
                QFile::decodeName(m_list.item(static_cast<std::size_t>(row)).path().c_str()));
            QDesktopServices::openUrl(QUrl::fromLocalFile(clip.absolutePath()));
        }
    });
    showKey(remove, QKeySequence(Qt::Key_Delete));
    showKey(copy, QKeySequence::Copy);
    auto* menuKey = new QAction(m_grid);
    menuKey->setShortcut(QKeySequence(Qt::SHIFT | Qt::Key_F10));
    connect(menuKey, &QAction::triggered, this, [this] { showRowMenu(QPoint(-1, -1)); });
    // Delete and Ctrl+C act on the grid's row only while the grid has the focus.
    for (QAction* action : {remove, copy, menuKey}) {
        action->setShortcutContext(Qt::WidgetShortcut);
        m_grid->addAction(action);
    }
    m_grid->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_grid, &QWidget::customContextMenuRequested, this, &MainWindow::showRowMenu);
}

void MainWindow::createControls()
{
    m_commandBar = new QWidget(this);
    auto* top = new QHBoxLayout(m_commandBar);
    top->setContentsMargins(0, 0, 0, 0);
    top->setSpacing(2);
    // Alt and the underlined letter open a button's menu.
    auto* file = new CMkButton(QStringLiteral("&File"), kIdFileButton, m_commandBar);
    auto* clear = new CMkButton(QStringLiteral("&Clear"), kIdClearButton, m_commandBar);
    auto* view = new CMkButton(QStringLiteral("&View"), kIdViewButton, m_commandBar);
    auto* options = new CMkButton(QStringLiteral("&Options"), kIdOptionsButton, m_commandBar);
    auto* help = new CMkButton(QStringLiteral("&Help"), kIdHelpButton, m_commandBar, kButtonFarEnd);
    createMenus(file, clear, view, options, help);
    for (QWidget* button : {file, clear, view, options}) {
        top->addWidget(button);
    }
    top->addStretch(1);
    top->addWidget(help);

    createGrid();

    m_lowerBar = new QWidget(this);
    auto* lower = new QHBoxLayout(m_lowerBar);
    lower->setContentsMargins(0, 0, 4, 0);
    lower->setSpacing(2);
    auto* checkAll = new CMkButton(QStringLiteral("Check all"), kIdCheckAll, m_lowerBar);
    m_checkSelected = new CMkButton(QStringLiteral("Check selected"), kIdCheckSelected, m_lowerBar,
                                    kButtonStartsDisabled);
    m_stop = new CMkButton(QStringLiteral("Stop"), kIdStop, m_lowerBar, kButtonStartsDisabled);
    checkAll->setToolTip(QStringLiteral("Check every clip without a result (F5)"));
    m_checkSelected->setToolTip(QStringLiteral("Check the selected clip again (Ctrl+F5)"));
    m_stop->setToolTip(QStringLiteral("Stop the run; the clip being checked keeps no result "
                                      "(Shift+F5)"));
    m_summary = new QLabel(m_lowerBar);
    setKitId(m_summary, kIdListSummary);
    m_summary->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    m_summary->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    lower->addWidget(checkAll);
    lower->addWidget(m_checkSelected);
    lower->addWidget(m_stop);
    lower->addWidget(m_summary, 1);

    m_progress = new CMkProgressBar(kIdProgressBar, this);
    m_progress->setRange(0, kProgressMax);
    m_progress->setValue(0);

    m_grip = new Grip(kIdGrip, kGripInitialTop, this);
    connect(m_grip, &Grip::moved, this, [this] { layoutControls(); });

    m_lowerPane = new QSplitter(Qt::Horizontal, this);
    m_lowerPane->setChildrenCollapsible(false);
    // The issue tree, and under it the clip's timeline and the selected issue's picture.
    auto* issuesPane = new QWidget(m_lowerPane);
    auto* issuesLayout = new QVBoxLayout(issuesPane);
    issuesLayout->setContentsMargins(0, 0, 0, 0);
    issuesLayout->setSpacing(2);
    m_tree = new CxTree(kIdIssueTree, issuesPane);
    setUpIssueTree(*m_tree);
    issuesLayout->addWidget(m_tree, 1);
    auto* under = new QHBoxLayout;
    m_timeline = new ClipTimeline(issuesPane);
    setKitId(m_timeline, kIdTimeline);
    m_picture = new QLabel(issuesPane);
    setKitId(m_picture, kIdIssuePicture);
    m_picture->setFixedSize(kIssuePictureWidth, kIssuePictureWidth * 3 / 4);
    m_picture->setAlignment(Qt::AlignCenter);
    m_picture->setWordWrap(true);
    m_picture->hide();
    under->addWidget(m_timeline, 1, Qt::AlignTop);
    under->addWidget(m_picture, 0, Qt::AlignTop);
    issuesLayout->addLayout(under);
    connect(m_tree, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
        const QVariant index =
            item != nullptr ? item->data(kIssueSeverityColumn, kIssueIndexRole) : QVariant();
        showIssue(index.isValid() ? index.toInt() : -1);
    });
    connect(m_timeline, &ClipTimeline::issueClicked, this, [this](int issue) {
        for (QTreeWidgetItemIterator it(m_tree); *it != nullptr; ++it) {
            const QVariant index = (*it)->data(kIssueSeverityColumn, kIssueIndexRole);
            if (index.isValid() && index.toInt() == issue) {
                m_tree->setCurrentItem(*it);
                m_tree->scrollToItem(*it);
                return;
            }
        }
    });
    m_facts = new QTextEdit(m_lowerPane);
    setKitId(m_facts, kIdFactsPanel);
    m_facts->setReadOnly(true);
    m_facts->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    m_facts->setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    m_facts->setPlaceholderText(QStringLiteral("The facts of the selected clip, once checked"));
    m_lowerPane->setStretchFactor(0, 3);
    m_lowerPane->setStretchFactor(1, 2);
    m_lowerPane->setSizes({kMainWindowWidth * 3 / 5, kMainWindowWidth * 2 / 5});

    m_statusBar = new CMkStatusBar(this);
    m_statusBar->addCell(kIdTitleCell, 0);
    m_statusBar->addCell(kIdStatusCell, 90);
    m_statusBar->addCell(kIdClockCell, 230, kCellRightEnd);
    m_statusBar->setCellText(kIdTitleCell, fromUtf8(titleText()));
    m_statusBar->setCellText(kIdClockCell, clockText(false));
    connect(m_statusBar, &CMkStatusBar::cellClicked, this, [this](int id) {
        if (id == kIdTitleCell) {
            showAbout();
        }
    });

    for (QWidget* bar : {m_commandBar, m_lowerBar, static_cast<QWidget*>(m_progress),
                         static_cast<QWidget*>(m_statusBar)}) {
        bar->setFixedHeight(kBarHeight);
    }
    setTabOrderList({kIdFileButton, kIdClearButton, kIdViewButton, kIdOptionsButton, kIdHelpButton,
                     kIdTaskGrid, kIdCheckAll, kIdCheckSelected, kIdStop, kIdIssueTree,
                     kIdFactsPanel, 0});
    setShortcutTable({{kShortcutCtrl, Qt::Key_O, kCommandOpenClips},
                      {kShortcutCtrl, Qt::Key_S, kCommandSaveReport},
                      {0, Qt::Key_F5, kIdCheckAll},
                      {kShortcutCtrl, Qt::Key_F5, kIdCheckSelected},
                      {kShortcutShift, Qt::Key_F5, kIdStop}});
    refreshSummary();
    refreshCommands();
}

void MainWindow::layoutControls()
{
    const int w = width();
    const int h = height();
    // The grip keeps its share of the height, so a larger window gives the grid room too.
    const int placedFor = std::exchange(m_gripPlacedFor, h);
    if (placedFor > 0 && placedFor != h) {
        const double top = static_cast<double>(m_grip->top()) * h / placedFor;
        m_grip->setRange(kGripMargin, h - kGripMargin);
        m_grip->setTop(static_cast<int>(std::lround(top)));
    }
    m_grip->setRange(kGripMargin, h - kGripMargin);
    const int g = m_grip->top();
    const int b = m_grip->bottom();
    m_commandBar->setGeometry(0, 0, w, kBarHeight);
    m_grid->setGeometry(0, kBarHeight, w, std::max(0, g - 60));
    m_lowerBar->setGeometry(0, g - 40, w, kBarHeight);
    m_progress->setGeometry(0, g - 20, w, kBarHeight);
    m_grip->setGeometry(0, g, w, b - g);
    m_lowerPane->setGeometry(0, b, w, std::max(0, h - b - 20));
    m_statusBar->setGeometry(0, h - kBarHeight, w, kBarHeight);
}

void MainWindow::resizeEvent(QResizeEvent* event)
{
    CWDlgClass::resizeEvent(event);
    layoutControls();
}

void MainWindow::start()
{
    if (m_options.commandLineMode) {
        if (m_list.empty()) {
            return; // nothing to check: the window waits to be closed
        }
        m_controller->CheckAll();
    }
    m_clockTimer.start(kClockPeriodMs);
    m_runnerTimer.start(kRunnerPeriodMs);
}

int MainWindow::runModal()
{
    start();
    if (!m_options.hide) {
        return exec();
    }
    // exec() would show the window; a hidden run only waits for the dialog to end.
    QEventLoop loop;
    connect(this, &QDialog::finished, &loop, &QEventLoop::quit);
    setModal(true);
    loop.exec(QEventLoop::DialogExec);
    return result();
}

void MainWindow::onCommand(int id)
{
    switch (id) {
    case kIdCheckAll:
        m_controller->CheckAll();
        break;
    case kIdCheckSelected:
        m_controller->CheckSelected(selectedListRow());
        break;
    case kIdStop:
        stopRun();
        break;
    case kCommandOpenClips:
        openClips();
        break;
    case kCommandSaveReport:
        saveReportAs();
        break;
    default:
        CWDlgClass::onCommand(id);
        return;
    }
    updateChecking();
    refreshCommands();
}

void MainWindow::onMenu(int button, int entry)
{
    switch (button) {
    case kIdFileButton:
        if (entry == kMenuOpenClips) {
            openClips();
        } else if (entry == kMenuSaveReport) {
            saveReportAs();
        } else if (entry == kMenuExit) {
            done(QDialog::Accepted);
        }
        break;
    case kIdClearButton:
        if (entry == kMenuClearFinished) {
            clearFinished();
        } else if (entry == kMenuClearAll) {
            m_list.ClearAll();
        }
        break;
    case kIdViewButton:
        if (entry == kMenuBelowPassing) {
            setBelowPassingOnly(m_belowPassing->isChecked());
        } else {
            setGridOrder(entry == kMenuByStatus ? GridOrder::Status
                         : entry == kMenuByPath ? GridOrder::Path
                                                : GridOrder::List);
        }
        break;
    case kIdOptionsButton:
        setCheckLevel(entry);
        break;
    case kIdHelpButton:
        if (entry == kMenuAbout) {
            showAbout();
        }
        break;
    default:
        break;
    }
}

void MainWindow::closeDialog()
{
    done(QDialog::Rejected);
}

void MainWindow::reject()
{
    // Escape would throw the list and its results away; only "Exit" and the close box end
    // the window.
}

void MainWindow::openClips()
{
    ProfileStore* store = kitSettings();
    OpenFilesRequest request;
    request.caption = QStringLiteral("Open Clips");
    if (store != nullptr) {
        request.folder = QFile::decodeName(store->GetFolder(kFolderClipsSlot).c_str());
    }
    for (const char* filter : kClipFilters) {
        request.filters << QString::fromUtf8(filter);
    }
    const QStringList chosen = kitOpenFiles(this, request);
    if (chosen.isEmpty()) {
        return;
    }
    if (store != nullptr) {
        const std::string first = QFile::encodeName(chosen.front()).toStdString();
        store->GetFolder(kFolderClipsSlot) = first.substr(0, first.rfind('/') + 1);
        store->SaveFolder(kFolderClipsSlot);
    }
    std::vector<std::string> paths;
    for (const QString& file : chosen) {
        paths.push_back(QFile::encodeName(file).toStdString());
    }
    addFiles(static_cast<int>(m_list.size()), paths);
}

namespace {

void warnOverLimit(QWidget* parent, const AddFilesResult& added)
{
    if (!added.warning) {
        return;
    }
    MessageBoxRequest box;
    box.caption = fromUtf8(TaskLimitWarning::caption());
    box.text = QString::fromStdString(added.warning->text());
    box.icon = QMessageBox::Warning;
    box.buttons = QMessageBox::Ok;
    box.defaultButton = QMessageBox::Ok;
    kitMessageBox(parent, box);
}

} // namespace

void MainWindow::addFiles(int row, const std::vector<std::string>& paths)
{
    warnOverLimit(this, m_list.AddFiles(row, paths));
}

void MainWindow::dropFiles(int row, const std::vector<std::string>& paths)
{
    warnOverLimit(this, m_list.Drop(row, paths));
}

void MainWindow::onRunnerTimer()
{
    const TickReport report = m_controller->tick();
    if (report.progress) {
        m_progress->setValue(*report.progress);
    }
    if (!report.harvestedRows.empty()) {
        const QDateTime now = QDateTime::currentDateTime();
        const int selected = selectedListRow();
        bool selectedChanged = false;
        for (std::size_t row : report.harvestedRows) {
            m_checkedAt[m_list.item(row).id()] = now;
            selectedChanged = selectedChanged || static_cast<int>(row) == selected;
        }
        m_model->rowsChanged(report.harvestedRows);
        if (selectedChanged) {
            refreshSelection();
        }
        refreshSummary();
    }
    if (report.status) {
        m_statusBar->setCellText(kIdStatusCell, fromUtf8(*report.status));
        if (report.statusBusy) {
            m_statusBar->setCellColours(kIdStatusCell, kBusyTextColour, kBusyBackColour);
        } else {
            m_statusBar->setCellDefaultColours(kIdStatusCell);
        }
    }
    if (m_controllerStale && controllerIdle()) {
        m_controller = makeController(); // the new check level
        m_controllerStale = false;
    }
    updateChecking();
    refreshCommands();
    // A check that ends moments after it began (a missing file, say) is followed at once:
    // after a harvest the window sleeps a few milliseconds for the check just started and,
    // when it has ended by then, ticks again without the 100 ms wait. A job of many such
    // clips is so not held to ten clips a second, and a longer check costs the window
    // thread one short wait.
    const bool quick = !report.harvestedRows.empty() && m_controller->busy();
    if (quick) {
        m_controller->waitForRunnerEnd(kQuickFollowWait);
    }
    m_runnerTimer.setInterval(quick ? 0 : kRunnerPeriodMs);
    if (report.allDone && m_options.commandLineMode) {
        done(QDialog::Accepted);
    }
}

void MainWindow::updateChecking()
{
    const auto& runners = m_controller->runners();
    std::optional<std::uint64_t> checking;
    QString position;
    if (!runners.empty()) {
        checking = runners.front()->itemId();
        std::size_t n = 1;
        std::size_t total = 1;
        if (m_controller->state() == RunState::All) {
            // Every item before this one in the run has its result.
            total = m_list.size();
            for (std::size_t row = 0; row < total; ++row) {
                n += m_list.item(row).finished() ? 1 : 0;
            }
        }
        position = QStringLiteral("%1 of %2").arg(n).arg(total);
    }
    if (checking == m_checkingId && (!checking || m_model->checkingRow() >= 0)) {
        return;
    }
    m_checkingId = checking;
    m_model->setChecking(checking, position);
    const int viewRow = m_proxy->viewRow(m_model->checkingRow());
    if (viewRow >= 0) {
        m_grid->scrollTo(m_proxy->index(viewRow, 0));
    }
}

void MainWindow::stopRun()
{
    if (controllerIdle()) {
        return;
    }
    // The runner's stop, then its forced abort; a new controller starts
    // from Idle. The clip being checked keeps no result.
    m_controller.reset();
    m_controller = makeController();
    m_controllerStale = false;
    m_progress->setValue(0);
    m_statusBar->setCellText(kIdStatusCell, fromUtf8(kStatusStopped));
    m_statusBar->setCellDefaultColours(kIdStatusCell);
    updateChecking();
    refreshCommands();
}

void MainWindow::setCheckLevel(CheckLevel level)
{
    if (level < 1 || level > 4) {
        return;
    }
    m_options.level = level;
    for (QAction* action : m_levels->actions()) {
        action->setChecked(action->data().toInt() == level);
    }
    if (ProfileStore* store = kitSettings()) {
        store->WriteInt(kCheckLevel.section, kCheckLevel.key, level);
    }
    if (controllerIdle()) {
        m_controller = makeController();
    } else {
        m_controllerStale = true;
    }
}

bool MainWindow::setProfile(const std::string& name)
{
    ProfileStore* store = kitSettings();
    const std::string stored = name == "technical" ? std::string() : name;
    std::shared_ptr<const DeliveryProfile> profile;
    ClipCheckOptions check = m_options.check;
    std::string error;
    if (store != nullptr) {
        // The loudness limits as the settings give them, then the profile's over them.
        const std::string before = readSettingText(store->name(), kCheckProfile);
        store->WriteString(kCheckProfile.section, kCheckProfile.key, stored);
        const CheckSettings settings = loadCheckSettings(store->name());
        error = settings.profileError;
        if (!error.empty()) {
            store->WriteString(kCheckProfile.section, kCheckProfile.key, before);
        }
        check = settings.options;
        profile = settings.profile;
    } else if (!stored.empty()) {
        if (auto found = findDeliveryProfile(stored, error)) {
            applyProfileOptions(*found, check);
            profile = std::make_shared<const DeliveryProfile>(std::move(*found));
        }
    }
    if (!error.empty()) {
        MessageBoxRequest box;
        box.caption = QStringLiteral("Error");
        box.text = QStringLiteral("The profile is not used: %1").arg(fromUtf8(error));
        box.icon = QMessageBox::Warning;
        kitMessageBox(this, box);
        return false;
    }
    m_options.check = check;
    m_options.profile = profile;
    if (controllerIdle()) {
        m_controller = makeController();
    } else {
        m_controllerStale = true;
    }
    return true;
}

bool MainWindow::saveReport(const std::string& path) const
{
    std::vector<ResultDocumentEntry> entries;
    entries.reserve(m_list.size());
    for (std::size_t i = 0; i < m_list.size(); ++i) {
        entries.push_back({m_list.item(i).path(), m_list.item(i).result()});
    }
    XmlNode document;
    buildResultDocument(document, entries);
    return document.Save(path);
}

void MainWindow::saveReportAs()
{
    if (m_list.empty()) {
        return;
    }
    SaveFileRequest request;
    request.caption = QStringLiteral("Save report");
    if (ProfileStore* store = kitSettings()) {
        request.folder = QFile::decodeName(store->GetFolder(kFolderClipsSlot).c_str());
    }
    request.fileName = QStringLiteral("report.qcout");
    request.filters << QStringLiteral("QC result document (*.qcout)|*.qcout");
    request.defaultSuffix = QStringLiteral("qcout");
    const QString chosen = kitSaveFile(this, request);
    if (chosen.isEmpty()) {
        return;
    }
    if (!saveReport(QFile::encodeName(chosen).toStdString())) {
        MessageBoxRequest box;
        box.caption = QStringLiteral("Error");
        box.text = QStringLiteral("Cannot write the report %1").arg(chosen);
        box.icon = QMessageBox::Warning;
        kitMessageBox(this, box);
    }
}

void MainWindow::setGridOrder(GridOrder order, Qt::SortOrder direction)
{
    m_proxy->setOrder(order, direction);
    QHeaderView* header = m_grid->header();
    if (order == GridOrder::List) {
        header->setSortIndicator(-1, Qt::AscendingOrder);
    } else {
        header->setSortIndicator(order == GridOrder::Path ? TaskListModel::PathColumn
                                                          : TaskListModel::StatusColumn,
                                 direction);
    }
    const int id = order == GridOrder::Status ? kMenuByStatus
                   : order == GridOrder::Path ? kMenuByPath
                                              : kMenuListOrder;
    entry(m_viewMenu, id)->setChecked(true);
    if (m_grid->currentIndex().isValid()) {
        m_grid->scrollTo(m_grid->currentIndex());
    }
}

void MainWindow::setBelowPassingOnly(bool on)
{
    m_belowPassing->setChecked(on);
    m_proxy->setBelowPassingOnly(on);
    refreshSelection();
}

void MainWindow::onHeaderClicked(int column)
{
    // Each click on a column: ascending, descending, back to the list's order.
    const GridOrder wanted =
        column == TaskListModel::PathColumn ? GridOrder::Path : GridOrder::Status;
    if (m_proxy->order() != wanted) {
        setGridOrder(wanted, Qt::AscendingOrder);
    } else if (m_proxy->sortOrder() == Qt::AscendingOrder) {
        setGridOrder(wanted, Qt::DescendingOrder);
    } else {
        setGridOrder(GridOrder::List);
    }
}

void MainWindow::showRowMenu(const QPoint& at)
{
    QModelIndex index = m_grid->indexAt(at);
    if (index.isValid()) {
        m_grid->setCurrentIndex(index);
    } else {
        index = m_grid->currentIndex();
    }
    if (!index.isValid() || selectedListRow() < 0) {
        return;
    }
    const QRect row = m_grid->visualRect(index);
    const QPoint where = index == m_grid->indexAt(at) ? at : row.bottomLeft();
    m_rowMenu->actions().at(0)->setEnabled(controllerIdle());
    m_rowMenu->popup(m_grid->viewport()->mapToGlobal(where));
}

int MainWindow::selectedListRow() const
{
    return m_proxy->listRow(m_grid->selectedRow());
}

void MainWindow::selectListRow(int row)
{
    const int viewRow = m_proxy->viewRow(row);
    if (viewRow >= 0) {
        m_grid->setCurrentIndex(m_proxy->index(viewRow, 0));
    }
}

void MainWindow::clearFinished()
{
    // The grid keeps its place: the first clip that stays, from the top row of the view on,
    // is at the top again. A selected clip that stays stays selected, also when the list
    // was reset (as a removal in many places is).
    std::optional<std::uint64_t> top;
    for (int row = m_grid->indexAt(QPoint(0, 0)).row(); row >= 0 && row < m_proxy->rowCount();
         ++row) {
        const TaskItem& item = m_list.item(static_cast<std::size_t>(m_proxy->listRow(row)));
        if (!item.finished()) {
            top = item.id();
            break;
        }
    }
    const int selected = selectedListRow();
    std::optional<std::uint64_t> kept;
    if (selected >= 0 && !m_list.item(static_cast<std::size_t>(selected)).finished()) {
        kept = m_list.item(static_cast<std::size_t>(selected)).id();
    }
    m_list.ClearFinished();
    if (kept && selectedListRow() < 0) {
        selectListRow(static_cast<int>(m_list.indexOfId(*kept)));
    }
    if (top) {
        const int row = m_proxy->viewRow(static_cast<int>(m_list.indexOfId(*top)));
        m_grid->scrollTo(m_proxy->index(row, 0), QAbstractItemView::PositionAtTop);
    }
}

void MainWindow::removeSelected()
{
    const int row = selectedListRow();
    if (row < 0) {
        return;
    }
    const int viewRow = m_grid->selectedRow();
    m_list.Remove(static_cast<std::size_t>(row));
    // The next row takes the removed one's place, so Delete can be pressed again.
    const int next = std::min(viewRow, m_proxy->rowCount() - 1);
    if (next >= 0) {
        m_grid->setCurrentIndex(m_proxy->index(next, 0));
    }
    refreshSelection();
}

QString MainWindow::clockText(bool firstTickDone)
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    char text[128];
    const char* pattern = firstTickDone ? "%A, %d.%b.%Y, %H:%M:%S" : "%A, %d-%b-%Y, %H:%M:%S";
    if (std::strftime(text, sizeof text, pattern, &local) == 0) {
        return {};
    }
    return QString::fromLocal8Bit(text);
}

void MainWindow::onClockTimer()
{
    m_statusBar->setCellText(kIdClockCell, clockText(true));
}

void MainWindow::refreshCommands()
{
    const int rows = static_cast<int>(m_list.size());
    const int selected = selectedListRow();
    m_checkSelected->setEnabled(rows > 0 && selected >= 0 && selected < rows);
    m_stop->setEnabled(!controllerIdle());
    entry(m_fileMenu, kMenuSaveReport)->setEnabled(rows > 0);
}

void MainWindow::forgetRemovedItems()
{
    std::erase_if(m_checkedAt, [this](const auto& entry) {
        return m_list.indexOfId(entry.first) == TaskList::npos;
    });
}

void MainWindow::refreshSummary()
{
    if (m_list.empty()) {
        m_summary->setText(QStringLiteral("Add clips: File > Open Clips (Ctrl+O), or drop "
                                          "files and folders here"));
        return;
    }
    std::size_t checked = 0;
    std::size_t below = 0;
    for (std::size_t row = 0; row < m_list.size(); ++row) {
        if (const QcResult* result = m_list.item(row).result()) {
            ++checked;
            below += result->score() < kPassingScore ? 1 : 0;
        }
    }
    m_summary->setText(QStringLiteral("%1 clips, %2 checked, %3 below 3/5 Playable")
                           .arg(m_list.size())
                           .arg(checked)
                           .arg(below));
}

void MainWindow::refreshSelection()
{
    refreshCommands();
    const int selected = selectedListRow();
    const TaskItem* item =
        selected >= 0 ? &m_list.item(static_cast<std::size_t>(selected)) : nullptr;
    const QcResult* result = item != nullptr ? item->result() : nullptr;
    showIssues(*m_tree, result);
    m_timeline->setResult(result);
    showIssue(-1);
    if (result == nullptr) {
        m_facts->clear();
        return;
    }
    const auto at = m_checkedAt.find(item->id());
    m_facts->setHtml(clipFactsHtml(*result, at == m_checkedAt.end() ? QDateTime() : at->second));
}

void MainWindow::showIssue(int issue)
{
    m_timeline->selectIssue(issue);
    const int selected = selectedListRow();
    const QcResult* result =
        selected >= 0 ? m_list.item(static_cast<std::size_t>(selected)).result() : nullptr;
    if (result == nullptr || issue < 0 ||
        static_cast<std::size_t>(issue) >= result->issues.size()) {
        requestPicture({}, 0);
        return;
    }
    const QcIssue& chosen = result->issues.at(static_cast<std::size_t>(issue));
    const MediaFacts& facts = result->facts;
    const auto stream = static_cast<std::size_t>(chosen.streamIndex);
    if (!chosen.hasPosition() || chosen.streamIndex < 0 || stream >= facts.streams.size() ||
        facts.streams[stream].type != StreamType::Video) {
        requestPicture({}, 0);
        return;
    }
    const StreamFacts& video = facts.streams[stream];
    const double offset = video.headerStart == kNoTime || facts.clipStart == kNoTime
                              ? 0.0
                              : hundredNsToSeconds(video.headerStart - facts.clipStart);
    requestPicture(result->path, std::max(0.0, offset + hundredNsToSeconds(chosen.at)));
}

void MainWindow::requestPicture(const std::string& path, double seconds)
{
    if (m_pictureReader != nullptr) {
        m_pictureReader->disconnect(this);
        m_pictureReader->kill();
        m_pictureReader->waitForFinished(1000);
        delete m_pictureReader;
        m_pictureReader = nullptr;
    }
    const std::string worker = workerExecutable();
    if (path.empty() || worker.empty()) {
        m_picture->clear();
        m_picture->hide();
        return;
    }
    // A worker reads the clip, restricted as a check is: a hostile clip costs its picture.
    m_picture->setText(QStringLiteral("Taking the picture..."));
    m_picture->show();
    auto* reader = new QProcess(this);
    m_pictureReader = reader;
    connect(reader, &QProcess::finished, this, [this, reader](int code, QProcess::ExitStatus how) {
        QPixmap pixmap;
        if (how == QProcess::NormalExit && code == 0 &&
            pixmap.loadFromData(reader->readAllStandardOutput(), "JPEG")) {
            m_picture->setPixmap(pixmap);
        } else {
            m_picture->setText(QStringLiteral("No picture: the clip cannot be read here"));
        }
        m_pictureReader = nullptr;
        reader->deleteLater();
    });
    QTimer::singleShot(kPictureTimeout, reader, [reader] { reader->kill(); });
    reader->start(QString::fromStdString(worker),
                  {QStringLiteral("--picture"), QFile::decodeName(path.c_str()),
                   QString::number(seconds, 'f', 6), QString::number(kIssuePictureWidth)});
}

void MainWindow::showAbout()
{
    CWDlgClass about(this);
    about.setWindowTitle(QStringLiteral("About ") + fromUtf8(kProductTitle));
    char version[64];
    int used = std::snprintf(version, sizeof version, "v%d.%d", kVersionMajor, kVersionMinor);
    if (kVersionRelease != 0) {
        used += std::snprintf(version + used, sizeof version - static_cast<std::size_t>(used),
                              ".%03d", kVersionRelease);
    }
    if (kVersionBuild != 0) {
        std::snprintf(version + used, sizeof version - static_cast<std::size_t>(used), ".%03d",
                      kVersionBuild);
    }
    auto* icon = new QLabel(&about);
    icon->setPixmap(programIcon().pixmap(32, 32));
    auto* line = new QLabel(fromUtf8(kProductTitle) + " " + QString::fromLatin1(version), &about);
    setKitId(line, 101);
    auto* legal = new QLabel(fromUtf8(kLegalNotice), &about);
    auto* ok = new CMkButton(QStringLiteral("OK"), kIdOk, &about);
    ok->setDefault(true);
    icon->setGeometry(12, 12, 32, 32);
    line->setGeometry(56, 12, 280, 20);
    legal->setGeometry(56, 34, 280, 20);
    ok->setGeometry(266, 64, 70, 24);
    about.setFixedSize(348, 100);
    about.exec();
}

} // namespace tarvoqc
