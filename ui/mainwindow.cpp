#include "ui/mainwindow.h"

#include <QEventLoop>
#include <QFile>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QResizeEvent>
#include <QVBoxLayout>
#include <ctime>

#include "results/dailylog.h"
#include "settings/profilestore.h"
#include "tarvoqc/version.h"
#include "ui/programicon.h"
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

} // namespace

MainWindow::MainWindow(MainWindowOptions options, QWidget* parent)
    : CWDlgClass(parent), m_options(options)
{
    setKitMainWindow(this);
    setWindowFlags(Qt::Window | Qt::WindowMinMaxButtonsHint | Qt::WindowCloseButtonHint);
    setWindowTitle(fromUtf8(kProductTitle));
    setWindowIcon(programIcon());
    resize(kMainWindowWidth, kMainWindowHeight);

    RunControllerOptions runOptions;
    runOptions.level = m_options.level;
    runOptions.decoderThreadOption = 2;
    runOptions.maxRunners = 1;
    runOptions.priority = kThreadPriorityIdle;
    runOptions.check = m_options.check;
    runOptions.check.decoderThreads = 0;
    runOptions.memoryLimitBytes = m_options.worker.memoryLimitBytes;
    runOptions.hangTimeout = m_options.worker.hangTimeout;
    m_controller = std::make_unique<RunController>(m_list, runOptions);

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
    m_grid->setModel(nullptr);
    delete m_model;
    m_model = nullptr;
    if (kitMainWindow() == this) {
        setKitMainWindow(nullptr);
    }
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
        const int buttonId = kitId(button);
        connect(action, &QAction::triggered, this,
                [this, buttonId, entry = id] { onMenu(buttonId, entry); });
    }
    button->setMenu(menu);
    return menu;
}

void MainWindow::createControls()
{
    m_commandBar = new QWidget(this);
    auto* top = new QHBoxLayout(m_commandBar);
    top->setContentsMargins(0, 0, 0, 0);
    top->setSpacing(2);
    auto* file = new CMkButton(QStringLiteral("File"), kIdFileButton, m_commandBar);
    auto* clear = new CMkButton(QStringLiteral("Clear"), kIdClearButton, m_commandBar);
    auto* help = new CMkButton(QStringLiteral("Help"), kIdHelpButton, m_commandBar, kButtonFarEnd);
    QMenu* fileMenu = addMenu(file, {{kMenuOpenClips, "Open Clips"},
                                     {kMenuOpenPlaylists, "Open Playlists"},
                                     {0, ""},
                                     {kMenuSaveReport, "Save report"},
                                     {0, ""},
                                     {kMenuExit, "Exit"}});
    // Playlists and reports are not offered yet: shown greyed.
    fileMenu->actions().at(1)->setEnabled(false);
    fileMenu->actions().at(3)->setEnabled(false);
    addMenu(clear, {{kMenuClearFinished, "Clear finished"}, {0, ""}, {kMenuClearAll, "Clear all"}});
    addMenu(help, {{kMenuAbout, "About"}});
    top->addWidget(file);
    top->addWidget(clear);
    top->addStretch(1);
    top->addWidget(help);

    m_grid = new CMaGrid(kIdTaskGrid, this);
    m_model = new TaskListModel(m_list);
    m_grid->setModel(m_model);
    m_grid->header()->resizeSection(TaskListModel::PathColumn, 400);
    // At least the described 80 pixels, and wide enough for the longest score text.
    m_grid->header()->resizeSection(
        TaskListModel::StatusColumn,
        std::max(80, m_grid->fontMetrics().horizontalAdvance(QStringLiteral("1/5 Very BAD")) + 16));
    m_grid->setItemDelegateForColumn(TaskListModel::StatusColumn, new StatusCellDelegate(m_grid));
    m_grid->setDropHandler(
        [](const std::vector<std::string>& paths) { return TaskList::CanAccept(paths); },
        [this](int row, const std::vector<std::string>& paths) { dropFiles(row, paths); });
    connect(m_grid->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            [this] { refreshIssues(); });
    connect(m_model, &QAbstractItemModel::modelReset, this, [this] { refreshIssues(); });
    connect(m_model, &QAbstractItemModel::rowsInserted, this, [this] { updateCheckSelected(); });

    m_lowerBar = new QWidget(this);
    auto* lower = new QHBoxLayout(m_lowerBar);
    lower->setContentsMargins(0, 0, 0, 0);
    lower->setSpacing(2);
    auto* checkAll = new CMkButton(QStringLiteral("Check all"), kIdCheckAll, m_lowerBar);
    m_checkSelected = new CMkButton(QStringLiteral("Check selected"), kIdCheckSelected, m_lowerBar,
                                    kButtonStartsDisabled);
    lower->addWidget(checkAll);
    lower->addWidget(m_checkSelected);
    lower->addStretch(1);

    m_progress = new CMkProgressBar(kIdProgressBar, this);
    m_progress->setRange(0, kProgressMax);
    m_progress->setValue(0);

    m_grip = new Grip(kIdGrip, kGripInitialTop, this);
    connect(m_grip, &Grip::moved, this, [this] { layoutControls(); });

    m_tree = new CxTree(kIdIssueTree, this);
    m_tree->setColumnCount(2);
    m_tree->header()->setStretchLastSection(true);
    m_tree->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);

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
    setTabOrderList({kIdTaskGrid, kIdCheckAll, kIdCheckSelected, kIdIssueTree, 0});
}

void MainWindow::layoutControls()
{
    const int w = width();
    const int h = height();
    m_grip->setRange(kGripMargin, h - kGripMargin);
    const int g = m_grip->top();
    const int b = m_grip->bottom();
    m_commandBar->setGeometry(0, 0, w, kBarHeight);
    m_grid->setGeometry(0, kBarHeight, w, std::max(0, g - 60));
    m_lowerBar->setGeometry(0, g - 40, w, kBarHeight);
    m_progress->setGeometry(0, g - 20, w, kBarHeight);
    m_grip->setGeometry(0, g, w, b - g);
    m_tree->setGeometry(0, b, w, std::max(0, h - b - 20));
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
        m_controller->CheckSelected(m_grid->selectedRow());
        break;
    default:
        CWDlgClass::onCommand(id);
        break;
    }
}

void MainWindow::onMenu(int button, int entry)
{
    if (button == kIdFileButton) {
        if (entry == kMenuOpenClips) {
            openClips();
        } else if (entry == kMenuExit) {
            done(QDialog::Accepted);
        }
    } else if (button == kIdClearButton) {
        if (entry == kMenuClearFinished) {
            m_list.ClearFinished();
        } else if (entry == kMenuClearAll) {
            m_list.ClearAll();
        }
    } else if (button == kIdHelpButton && entry == kMenuAbout) {
        showAbout();
    }
}

void MainWindow::closeDialog()
{
    done(QDialog::Rejected);
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
        m_model->rowsChanged(report.harvestedRows);
        const int selected = m_grid->selectedRow();
        for (std::size_t row : report.harvestedRows) {
            if (static_cast<int>(row) == selected) {
                refreshIssues();
            }
        }
    }
    if (report.status) {
        m_statusBar->setCellText(kIdStatusCell, fromUtf8(*report.status));
        if (report.statusBusy) {
            m_statusBar->setCellColours(kIdStatusCell, kBusyTextColour, kBusyBackColour);
        } else {
            m_statusBar->setCellDefaultColours(kIdStatusCell);
        }
    }
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

void MainWindow::updateCheckSelected()
{
    const int rows = static_cast<int>(m_list.size());
    const int selected = m_grid->selectedRow();
    m_checkSelected->setEnabled(rows > 0 && selected >= 0 && selected < rows);
}

void MainWindow::refreshIssues()
{
    updateCheckSelected();
    m_tree->clear();
    const int selected = m_grid->selectedRow();
    if (selected < 0 || selected >= static_cast<int>(m_list.size())) {
        return;
    }
    const QcResult* result = m_list.item(static_cast<std::size_t>(selected)).result();
    if (result == nullptr) {
        return;
    }
    // The tree owns the items made below (Qt's parent ownership), which the analyzer does not
    // follow. NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    for (int c = 0; c < kCategoryCount; ++c) {
        const auto category = static_cast<QcIssueCategory>(c);
        const std::vector<const QcIssue*> issues = result->issues.byCategory(category);
        if (issues.empty()) {
            continue;
        }
        auto* group = new QTreeWidgetItem(m_tree, {fromUtf8(categoryText(category))});
        for (const QcIssue* issue : issues) {
            // The issue's own text, with its severity and stream beside it.
            QString where = QStringLiteral("[%1]").arg(fromUtf8(severityText(issue->severity)));
            if (issue->streamIndex >= 0) {
                where += QStringLiteral(" Stream %1 (%2)")
                             .arg(issue->streamIndex)
                             .arg(fromUtf8(streamKindText(issue->streamKind)));
            }
            auto* node = new QTreeWidgetItem(group, {fromUtf8(issue->text), where});
            node->setToolTip(0, fromUtf8(QcIssueList::longLine(*issue)));
        }
    }
    m_tree->expandAll();
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
