#include <QAbstractItemModelTester>
#include <QClipboard>
#include <QDesktopServices>
#include <QHeaderView>
#include <QMenu>
#include <QMimeData>
#include <QRegularExpression>
#include <QSplitter>
#include <QTest>
#include <QTextEdit>
#include <QTimer>
#include <QTreeWidgetItemIterator>
#include <QUrl>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "batch/workerprocess.h"
#include "settings/profilestore.h"
#include "tests/engine/engine_test_util.h"
#include "tests/support/testsupport.h"
#include "tests/ui/resultdocument.h"
#include "ui/cliptimeline.h"
#include "ui/mainwindow.h"
#include "ui/resultpanes.h"
#include "ui/tasklistmodel.h"

using namespace tarvoqc;
namespace fs = std::filesystem;

namespace {

class MainWindowTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setKitSettings(&m_store);
        setMessageBoxAnswerer([this](const MessageBoxRequest& box) {
            m_boxes.push_back(box);
            return QMessageBox::Ok;
        });
    }
    void TearDown() override
    {
        setMessageBoxAnswerer({});
        setKitSettings(nullptr);
    }

    static CMaGrid* grid(MainWindow& w) { return static_cast<CMaGrid*>(w.control(kIdTaskGrid)); }
    static CxTree* tree(MainWindow& w) { return static_cast<CxTree*>(w.control(kIdIssueTree)); }
    static QString statusCell(MainWindow& w)
    {
        return static_cast<QLabel*>(w.control(kIdStatusCell))->text();
    }
    static std::vector<std::string> rows(MainWindow& w)
    {
        std::vector<std::string> paths;
        for (std::size_t i = 0; i < w.taskList().size(); ++i) {
            paths.push_back(w.taskList().item(i).path());
        }
        return paths;
    }

    // Drops the paths on the grid at the point of a row (-1: below the last row), as a
    // file manager does: enter, then drop. Gives the drop action the grid accepted with.
    static Qt::DropAction drop(MainWindow& w, const std::vector<std::string>& paths, int row)
    {
        CMaGrid* view = grid(w);
        QMimeData data;
        QList<QUrl> urls;
        for (const std::string& p : paths) {
            urls << QUrl::fromLocalFile(QString::fromStdString(p));
        }
        data.setUrls(urls);
        const QPoint at = row < 0 ? QPoint(5, view->viewport()->height() - 2)
                                  : view->visualRect(view->model()->index(row, 0)).center();
        QDragEnterEvent enter(at, Qt::CopyAction | Qt::LinkAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &enter);
        if (!enter.isAccepted()) {
            return Qt::IgnoreAction;
        }
        QDropEvent dropped(at, Qt::CopyAction | Qt::LinkAction, &data, Qt::LeftButton,
                           Qt::NoModifier);
        QApplication::sendEvent(view->viewport(), &dropped);
        return enter.dropAction();
    }

    static void select(MainWindow& w, int row)
    {
        grid(w)->setCurrentIndex(grid(w)->model()->index(row, 0));
    }
    // The list rows in the grid's order.
    static std::vector<int> shown(MainWindow& w)
    {
        std::vector<int> listRows;
        const auto* view = static_cast<const TaskListProxy*>(grid(w)->model());
        for (int row = 0; row < view->rowCount(); ++row) {
            listRows.push_back(view->listRow(row));
        }
        return listRows;
    }
    static QString facts(MainWindow& w)
    {
        return static_cast<QTextEdit*>(w.control(kIdFactsPanel))->toPlainText();
    }
    // Runs act; the popup menu it opens (modal or not) is closed again. Gives the text of
    // the popup's first entry, empty when none opened.
    static QString popupOf(const std::function<void()>& act)
    {
        QString first;
        QTimer::singleShot(0, [&] {
            if (auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget())) {
                first = menu->actions().at(0)->text();
                menu->close();
            }
        });
        act();
        QTest::qWait(20);
        return first;
    }
    static bool waitForState(MainWindow& w, RunState state, int ms = 60000)
    {
        return QTest::qWaitFor(
            [&] { return w.controller().state() == state && !w.controller().busy(); }, ms);
    }

    test::TempDir m_dir;
    ProfileStore m_store{(m_dir / "TarvoQC.ini").string(), m_dir.path().string() + "/"};
    std::vector<MessageBoxRequest> m_boxes;
};

TEST_F(MainWindowTest, DropsLandAtTheDropRowInOrder)
{
    // Which dropped paths are kept, and in what order, is the list's (TaskList.DropDecisions);
    // this proves a drop on the grid reaches it at the row under the cursor.
    const fs::path tree = m_dir / "tree";
    fs::create_directories(tree / "sub");
    test::writeFile(tree / "a.mxf", "x");
    test::writeFile(tree / "sub" / "b.ts", "x");
    const std::string x = (m_dir / "x.mp4").string();
    const std::string y = (m_dir / "y.mp4").string();
    const std::string clip = (m_dir / "clip.mov").string();

    MainWindow w;
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.addFiles(0, {x, y});
    EXPECT_EQ(drop(w, {(m_dir / "notes.txt").string()}, 0), Qt::IgnoreAction);
    // Onto row 1: a clip, a text file, a folder.
    EXPECT_EQ(drop(w, {clip, (m_dir / "z.txt").string(), tree.string()}, 1), Qt::LinkAction);
    std::vector<std::string> scanned; // in the file system's order
    TaskList().ScanFolder(tree.string(), scanned);
    ASSERT_EQ(scanned.size(), 2u);
    std::vector<std::string> expected = {x, clip};
    expected.insert(expected.end(), scanned.begin(), scanned.end());
    expected.push_back(y);
    EXPECT_EQ(rows(w), expected);
    // Below the last row: appended.
    const std::string last = (m_dir / "last.wav").string();
    drop(w, {last}, -1);
    EXPECT_EQ(rows(w).back(), last);
    // In a sorted view a drop lands in the list before the item shown at the drop row.
    w.setGridOrder(GridOrder::Path, Qt::DescendingOrder);
    const std::string first = (m_dir / "first.ts").string();
    drop(w, {first}, 0);
    const std::vector<std::string> after = rows(w);
    const auto at = std::find(after.begin(), after.end(), first);
    ASSERT_TRUE(at != after.end() && at + 1 != after.end());
    EXPECT_EQ(*(at + 1), y) << "before the item shown first";
    EXPECT_TRUE(m_boxes.empty());
}

TEST_F(MainWindowTest, OverLimitDropRaisesTheListsWarning)
{
    // The list's own tests prove the numbers at other sizes; this, the box a drop shows.
    std::vector<std::string> listed(50000), dropped = {"/more/0.mxf", "/more/1.mxf"};
    for (std::size_t i = 0; i < listed.size(); ++i) {
        listed[i] = "/clips/" + std::to_string(i) + ".mxf";
    }
    MainWindow w;
    w.addFiles(0, listed);
    w.dropFiles(0, dropped);
    ASSERT_EQ(m_boxes.size(), 1u);
    EXPECT_EQ(m_boxes[0].caption, QString("Warning"));
    EXPECT_EQ(m_boxes[0].icon, QMessageBox::Warning);
    EXPECT_EQ(m_boxes[0].text.toStdString(),
              "Maximum number of task files reached.\nThe list accepts max of 50000 items.\nThis "
              "is trying to add 2 items (2 over the limit), it will only 0.");
    EXPECT_EQ(w.taskList().size(), 50000u);
}

TEST_F(MainWindowTest, CheckAllShowsScoresIssuesFactsViewsAndTheReport)
{
    // clip, status text, cell background and text colours (0x00BBGGRR), issue groups shown,
    // whether its keys were made
    const std::tuple<const char*, const char*, std::uint32_t, std::uint32_t, const char*, bool>
        rows[] = {{"h264_aac.mp4", "5/5 OK", 0x00FF00, 0x000000, "", true},
                  {"mpeg2_mp2.ts", "4/5 Good", 0x0000FF, 0x000000, "MediaTime ", true},
                  {"truncated.mxf", "3/5 Playable", 0x0000E0, 0x000000, "MediaTime ", true},
                  {"jump_video_high.ts", "2/5 BAD", 0x0000A0, 0xC0C0C0, "Frames ", true},
                  {"pcm.wav", "1/5 Very BAD", 0x000080, 0xC0C0C0, "MediaTime ", true},
                  {"text.mov", "0/5 ERROR", 0x000040, 0xC0C0C0, "File ", false}};
    MainWindow w;
    QAbstractItemModelTester tester(grid(w)->model(),
                                    QAbstractItemModelTester::FailureReportingMode::Fatal);
    for (const auto& row : rows) {
        w.taskList().AppendFromCommandLine(test::testClip(std::get<0>(row)).string());
    }
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    EXPECT_TRUE(statusCell(w).isEmpty());
    EXPECT_FALSE(w.control(kIdCheckSelected)->isEnabled());
    w.start();
    static_cast<QPushButton*>(w.control(kIdCheckAll))->click();
    ASSERT_TRUE(QTest::qWaitFor([&] { return statusCell(w) == QString("Finished"); }, 120000))
        << statusCell(w).toStdString();

    const auto colour = [](std::uint32_t bgr) {
        return QColor(static_cast<int>(bgr & 0xFF), static_cast<int>((bgr >> 8) & 0xFF),
                      static_cast<int>((bgr >> 16) & 0xFF));
    };
    std::string report;
    for (int i = 0; i < static_cast<int>(std::size(rows)); ++i) {
        const auto& [clip, text, back, fore, groups, keyed] = rows[i];
        SCOPED_TRACE(clip);
        const QModelIndex status = grid(w)->model()->index(i, TaskListModel::StatusColumn);
        EXPECT_EQ(status.data().toString(), QString(text));
        EXPECT_EQ(status.data(Qt::BackgroundRole).value<QColor>(), colour(back));
        EXPECT_EQ(status.data(Qt::ForegroundRole).value<QColor>(), colour(fore));

        select(w, i);
        EXPECT_TRUE(w.control(kIdCheckSelected)->isEnabled());
        // The tree as "group{severity:issue|}" in its order, against the result's issues by
        // category in the order the check raised them.
        std::string shownTree;
        std::string names;
        for (int g = 0; g < tree(w)->topLevelItemCount(); ++g) {
            const QTreeWidgetItem* group = tree(w)->topLevelItem(g);
            EXPECT_TRUE(group->isExpanded());
            names += group->text(0).toStdString() + " ";
            shownTree += group->text(0).toStdString() + "{";
            for (int c = 0; c < group->childCount(); ++c) {
                shownTree += group->child(c)->text(kIssueSeverityColumn).toStdString() + ":" +
                             group->child(c)->text(kIssueTextColumn).toStdString() + "|";
            }
            shownTree += "}";
        }
        std::string expected;
        const QcResult& result = *w.taskList().item(static_cast<std::size_t>(i)).result();
        for (int c = 0; c < kCategoryCount; ++c) {
            std::string items;
            for (const auto& issue : result.issues.all()) {
                if (static_cast<int>(issue->category) == c) {
                    items += std::string(severityText(issue->severity)) + ":" + issue->text + "|";
                }
            }
            expected += items.empty()
                            ? ""
                            : std::string(categoryText(QcIssueCategory(c))) + "{" + items + "}";
        }
        EXPECT_EQ(names, groups);
        EXPECT_EQ(shownTree, expected);
        // The facts of this clip: its keys as another program computes them.
        const std::string hash = keyed ? test::sha256sumOf(test::testClip(clip)) : "";
        EXPECT_TRUE(facts(w).contains(QString::fromStdString(hash.empty() ? "not made" : hash)))
            << facts(w).toStdString();
        EXPECT_TRUE(facts(w).contains("level 3"));
        report += "Clip " + test::testClip(clip).string() + " " + (keyed ? hash : "-") +
                  "\nQCheck " + text + "\n";
    }
    EXPECT_EQ(w.controller().state(), RunState::Idle);

    // The grid's orders and filter, by the View menu's calls and by header clicks; the list
    // keeps its own order throughout.
    const std::vector<std::string> listOrder = this->rows(w);
    QHeaderView* header = grid(w)->header();
    const auto click = [&](int column) {
        QTest::mouseClick(header->viewport(), Qt::LeftButton, {},
                          QPoint(header->sectionViewportPosition(column) + 8, 5));
    };
    // step, the list rows shown after it
    const std::tuple<std::function<void()>, std::vector<int>> views[] = {
        {[&] { w.setGridOrder(GridOrder::Status); }, {5, 4, 3, 2, 1, 0}},
        {[&] { w.setGridOrder(GridOrder::Path); }, {0, 3, 1, 4, 5, 2}},
        {[&] { w.setBelowPassingOnly(true); }, {3, 4, 5}},
        {[&] { w.setGridOrder(GridOrder::List); }, {3, 4, 5}},
        {[&] { w.setBelowPassingOnly(false); }, {0, 1, 2, 3, 4, 5}},
        {[&] { click(TaskListModel::PathColumn); }, {0, 3, 1, 4, 5, 2}},
        {[&] { click(TaskListModel::PathColumn); }, {2, 5, 4, 1, 3, 0}},
        {[&] { click(TaskListModel::PathColumn); }, {0, 1, 2, 3, 4, 5}}};
    for (std::size_t v = 0; v < std::size(views); ++v) {
        SCOPED_TRACE(v);
        std::get<0>(views[v])();
        EXPECT_EQ(shown(w), std::get<1>(views[v]));
    }
    EXPECT_EQ(this->rows(w), listOrder);

    // "Save report" (Ctrl+S): the list's result document, read back by another parser; a
    // place that cannot be written is said so.
    const fs::path saved = m_dir / "report.qcout";
    for (const fs::path& target : {saved, m_dir / "missing" / "r.qcout"}) {
        setSaveFileAnswerer([&](const SaveFileRequest&) { return QString::fromStdString(target); });
        QTest::keyClick(grid(w), Qt::Key_S, Qt::ControlModifier);
        QCoreApplication::sendPostedEvents();
    }
    setSaveFileAnswerer({});
    EXPECT_EQ(test::documentSummary(saved), report);
    ASSERT_EQ(m_boxes.size(), 1u);
    EXPECT_EQ(m_boxes[0].caption, QString("Error"));
}

TEST_F(MainWindowTest, ClearDuringACheckAndCheckSelected)
{
    MainWindow w;
    w.taskList().AppendFromCommandLine(test::testClip("long.ts").string());
    w.taskList().AppendFromCommandLine(test::testClip("h264_aac.mp4").string());
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.start();
    w.command(kIdCheckAll);
    ASSERT_TRUE(QTest::qWaitFor([&] { return statusCell(w) == QString("Working..."); }));
    EXPECT_EQ(static_cast<QLabel*>(w.control(kIdStatusCell))->palette().color(QPalette::Window),
              QColor(0xA0, 0xA0, 0xFF));

    // "Clear all" empties the list, the running check goes on and its result is dropped.
    auto* clearButton = static_cast<QPushButton*>(w.control(kIdClearButton));
    clearButton->menu()->actions().at(2)->trigger(); // "Clear all"
    EXPECT_EQ(w.taskList().size(), 0u);
    EXPECT_FALSE(w.control(kIdCheckSelected)->isEnabled());
    ASSERT_TRUE(QTest::qWaitFor([&] { return statusCell(w) == QString("Finished"); }, 60000))
        << statusCell(w).toStdString();

    // "Check selected" on a checked item checks it again; "Clear finished" then removes it.
    w.taskList().AppendFromCommandLine(test::testClip("h264_aac.mp4").string());
    w.taskList().AppendFromCommandLine(test::testClip("text.mov").string());
    select(w, 0);
    w.command(kIdCheckSelected);
    EXPECT_EQ(w.controller().state(), RunState::Single);
    ASSERT_TRUE(QTest::qWaitFor([&] { return w.controller().state() == RunState::Idle; }, 60000));
    EXPECT_TRUE(w.taskList().item(0).finished());
    EXPECT_FALSE(w.taskList().item(1).finished());
    clearButton->menu()->actions().at(0)->trigger(); // "Clear finished"
    ASSERT_EQ(w.taskList().size(), 1u);
    EXPECT_EQ(w.taskList().item(0).path(), test::testClip("text.mov").string());
}

// "Clear finished" leaves the operator where he was: the clip at the top of the grid (or
// the first one that stays below it) is at the top again and the selected clip stays
// selected. Removals in few places leave the grid's other indexes valid as well.
TEST_F(MainWindowTest, ClearFinishedKeepsTheSelectionAndThePlace)
{
    constexpr int kRows = 400;
    const auto everyOther = [](int row) { return row % 2 == 0 && row < 380; };
    // Which rows are finished; the row scrolled to the top, the selected row, the row
    // expected at the top afterwards (by its row before); whether indexes stay valid.
    const std::tuple<const char*, std::function<bool(int)>, int, int, int, bool> cases[] = {
        {"finished above the view and within it",
         [](int r) { return r < 100 || (r >= 150 && r < 160); }, 120, 170, 120, true},
        {"the top row finished", [](int r) { return r >= 110 && r < 125; }, 115, 130, 125, true},
        {"finished in more places than removals are told", everyOther, 201, 231, 201, false},
    };
    for (const auto& [what, finished, top, selected, topAfter, indexesKept] : cases) {
        SCOPED_TRACE(what);
        MainWindow w;
        QAbstractItemModelTester tester(grid(w)->model(),
                                        QAbstractItemModelTester::FailureReportingMode::Fatal);
        std::vector<std::string> paths;
        for (int row = 0; row < kRows; ++row) {
            paths.push_back((m_dir / ("clip" + std::to_string(row) + ".mxf")).string());
            w.taskList().AppendFromCommandLine(paths.back());
        }
        w.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
        std::vector<std::string> staying;
        for (int row = 0; row < kRows; ++row) {
            if (finished(row)) {
                w.taskList()
                    .item(static_cast<std::size_t>(row))
                    .setResult(std::make_unique<QcResult>());
            } else {
                staying.push_back(paths[static_cast<std::size_t>(row)]);
            }
        }
        CMaGrid* view = grid(w);
        const auto pathAt = [&](int viewRow) {
            return view->model()->index(viewRow, 0).data().toString().toStdString();
        };
        const auto topPath = [&] { return pathAt(view->indexAt(QPoint(0, 0)).row()); };
        select(w, selected);
        view->scrollTo(view->model()->index(top, 0), QAbstractItemView::PositionAtTop);
        ASSERT_EQ(topPath(), paths[static_cast<std::size_t>(top)]);
        const QPersistentModelIndex last = view->model()->index(kRows - 1, 0);

        static_cast<QPushButton*>(w.control(kIdClearButton))->menu()->actions().at(0)->trigger();
        QApplication::processEvents();
        EXPECT_EQ(rows(w), staying);
        EXPECT_EQ(topPath(), paths[static_cast<std::size_t>(topAfter)]);
        EXPECT_EQ(pathAt(view->selectedRow()), paths[static_cast<std::size_t>(selected)]);
        EXPECT_EQ(last.isValid(), indexesKept);
        if (indexesKept) {
            EXPECT_EQ(last.data().toString().toStdString(), paths.back());
        }
    }
}

TEST_F(MainWindowTest, LayoutFollowsTheGripAtEverySize)
{
    MainWindow w;
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    // width, height, where the grip is dragged (0: not), where it stops; a resize keeps
    // the grip's share of the height
    const std::tuple<int, int, int, int> rows[] = {{624, 442, 230, 230}, {800, 600, 300, 300},
                                                   {800, 600, 50, 128},  {800, 600, 590, 472},
                                                   {500, 300, 150, 150}, {1000, 600, 0, 300}};
    for (const auto& [width, height, gripTo, expectedTop] : rows) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << " grip " << gripTo);
        w.resize(width, height);
        auto* grip = static_cast<Grip*>(w.control(kIdGrip));
        if (gripTo > 0) {
            grip->setTop(gripTo);
        }
        const int h = w.height();
        const int wd = w.width();
        EXPECT_EQ(grip->minTop(), 128);
        EXPECT_EQ(grip->maxTop(), h - 128);
        const int g = grip->top();
        const int b = grip->bottom();
        EXPECT_EQ(g, expectedTop);
        EXPECT_EQ(w.control(kIdFileButton)->parentWidget()->geometry(), QRect(0, 0, wd, 20));
        EXPECT_EQ(w.control(kIdTaskGrid)->geometry(), QRect(0, 20, wd, g - 60));
        EXPECT_EQ(w.control(kIdCheckAll)->parentWidget()->geometry(), QRect(0, g - 40, wd, 20));
        EXPECT_EQ(w.control(kIdProgressBar)->geometry(), QRect(0, g - 20, wd, 20));
        EXPECT_EQ(grip->geometry(), QRect(0, g, wd, b - g));
        // The lower pane: the splitter of the issues (tree and timeline) and the facts.
        const QWidget* lowerPane = w.control(kIdFactsPanel)->parentWidget();
        EXPECT_EQ(w.control(kIdTimeline)->parentWidget()->parentWidget(), lowerPane);
        EXPECT_EQ(lowerPane->geometry(), QRect(0, b, wd, h - b - 20));
        EXPECT_EQ(w.control(kIdTitleCell)->parentWidget()->geometry(), QRect(0, h - 20, wd, 20));
    }
}

TEST_F(MainWindowTest, TitlesMenusAndClock)
{
    MainWindow w;
    EXPECT_EQ(w.windowTitle(), QString("Tarvo Quality Check"));
    EXPECT_TRUE(static_cast<QLabel*>(w.control(kIdTitleCell))
                    ->text()
                    .contains(QRegularExpression(
                        "^Tarvo Quality Check v\\d+\\.\\d+\\.\\d+ build \\d{3,}$")));
    const auto clock = [&] { return static_cast<QLabel*>(w.control(kIdClockCell))->text(); };
    const QRegularExpression dashes("^\\w+, \\d\\d-\\w+-\\d{4}, \\d\\d:\\d\\d:\\d\\d$");
    const QRegularExpression dots("^\\w+, \\d\\d\\.\\w+\\.\\d{4}, \\d\\d:\\d\\d:\\d\\d$");
    EXPECT_TRUE(dashes.match(clock()).hasMatch()) << clock().toStdString();
    w.onClockTimer();
    EXPECT_TRUE(dots.match(clock()).hasMatch()) << clock().toStdString();

    const auto entries = [&](int button) {
        QStringList texts;
        for (QAction* a : static_cast<QPushButton*>(w.control(button))->menu()->actions()) {
            texts << (a->isSeparator() ? "-" : a->text() + (a->isEnabled() ? "" : " (grey)"));
        }
        return texts.join('|');
    };
    EXPECT_EQ(entries(kIdFileButton),
              "Open Clips|Open Playlists (grey)|-|Save report (grey)|-|Exit");
    EXPECT_EQ(entries(kIdClearButton), "Clear finished|-|Clear all");
    EXPECT_EQ(entries(kIdHelpButton), "About");
}

TEST_F(MainWindowTest, OpenClipsStartsInTheRememberedFolderAndSavesIt)
{
    OpenFilesRequest seen;
    const std::string chosen = (m_dir / "in" / "a.mxf").string();
    setOpenFilesAnswerer([&](const OpenFilesRequest& request) {
        seen = request;
        return QStringList{QString::fromStdString(chosen), QString("/elsewhere/b.txt")};
    });
    MainWindow w;
    static_cast<QPushButton*>(w.control(kIdFileButton))->menu()->actions().at(0)->trigger();
    setOpenFilesAnswerer({});
    EXPECT_EQ(seen.caption, QString("Open Clips"));
    EXPECT_EQ(seen.folder, QString::fromStdString(m_dir.path().string() + "/"));
    ASSERT_EQ(seen.filters.size(), 7);
    EXPECT_EQ(seen.filters[1], QString("Audio (*.wav;*.mp3)|*.wav;*.mp3"));
    EXPECT_EQ(rows(w), std::vector<std::string>{chosen});
    std::string folder;
    m_store.ReadString(kSectionOptions, "Folder Clips", folder);
    EXPECT_EQ(folder, (m_dir / "in").string() + "/");
}

// Tells which URLs the desktop was asked to open.
class UrlCatcher : public QObject
{
    Q_OBJECT

public:
    QList<QUrl> urls;

public slots:
    void open(const QUrl& url) { urls << url; }
};

TEST_F(MainWindowTest, EveryCommandIsReachedByTheKeyboard)
{
    MainWindow w;
    const std::string first = test::testClip("text.mov").string();
    const std::string second = (m_dir / "gone.mxf").string();
    w.taskList().AppendFromCommandLine(first);
    w.taskList().AppendFromCommandLine(second);
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.start();
    const auto focusOn = [&](int id) {
        w.activateWindow(); // again after a menu had it
        w.focusControl(w.control(id));
        return QTest::qWaitFor([&] { return kitId(QApplication::focusWidget()) == id; });
    };
    const auto press = [](Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QTest::keyClick(QApplication::focusWidget(), key, modifiers);
        QCoreApplication::sendPostedEvents();
    };

    // Tab goes round every control, the buttons of the bars too; disabled ones are passed.
    const auto ring = [&] {
        std::vector<int> ids;
        for (int i = 0; i < 12 && (ids.empty() || ids.back() != kIdFileButton); ++i) {
            press(Qt::Key_Tab);
            ids.push_back(kitId(QApplication::focusWidget()));
        }
        return ids;
    };
    ASSERT_TRUE(focusOn(kIdFileButton));
    EXPECT_EQ(ring(), (std::vector<int>{kIdClearButton, kIdViewButton, kIdOptionsButton,
                                        kIdHelpButton, kIdTaskGrid, kIdCheckAll, kIdIssueTree,
                                        kIdFactsPanel, kIdFileButton}));
    select(w, 0);
    ASSERT_TRUE(focusOn(kIdCheckAll));
    press(Qt::Key_Tab);
    EXPECT_EQ(kitId(QApplication::focusWidget()), kIdCheckSelected);

    // Alt and a letter open the bar's menus.
    const std::pair<Qt::Key, const char*> menus[] = {{Qt::Key_F, "Open Clips"},
                                                     {Qt::Key_C, "Clear finished"},
                                                     {Qt::Key_V, "List order"},
                                                     {Qt::Key_O, "Check level 1: open and header"},
                                                     {Qt::Key_H, "About"}};
    for (const auto& [key, entry] : menus) {
        SCOPED_TRACE(entry);
        ASSERT_TRUE(focusOn(kIdTaskGrid));
        EXPECT_EQ(popupOf([&] { press(key, Qt::AltModifier); }), QString(entry));
    }

    bool opened = false;
    setOpenFilesAnswerer([&](const OpenFilesRequest&) {
        opened = true;
        return QStringList();
    });
    // key, modifiers, what must hold after it (the grid has the focus, row 0 selected)
    const std::tuple<const char*, Qt::Key, Qt::KeyboardModifiers, std::function<bool()>> keys[] = {
        {"Ctrl+O opens clips", Qt::Key_O, Qt::ControlModifier, [&] { return opened; }},
        {"F5 checks all", Qt::Key_F5, Qt::NoModifier,
         [&] { return w.controller().state() == RunState::All; }},
        {"Escape leaves the window and its run alone", Qt::Key_Escape, Qt::NoModifier,
         [&] { return w.isVisible() && w.controller().state() == RunState::All; }},
        {"Shift+F5 stops", Qt::Key_F5, Qt::ShiftModifier,
         [&] { return w.controller().state() == RunState::Idle && statusCell(w) == "Stopped"; }},
        {"Ctrl+F5 checks the selected clip", Qt::Key_F5, Qt::ControlModifier,
         [&] { return w.controller().state() == RunState::Single; }},
        {"Ctrl+C copies its path", Qt::Key_C, Qt::ControlModifier,
         [&] { return QGuiApplication::clipboard()->text() == QString::fromStdString(first); }},
        {"Delete removes it", Qt::Key_Delete, Qt::NoModifier,
         [&] { return rows(w) == std::vector<std::string>{second}; }},
        {"the menu key opens the row menu", Qt::Key_F10, Qt::ShiftModifier,
         [&] { return w.rowMenu()->isVisible(); }}};
    for (const auto& [what, key, modifiers, holds] : keys) {
        SCOPED_TRACE(what);
        ASSERT_TRUE(focusOn(kIdTaskGrid));
        press(key, modifiers);
        EXPECT_TRUE(holds());
    }
    setOpenFilesAnswerer({});
    w.rowMenu()->close();
}

TEST_F(MainWindowTest, RowMenuActsOnTheRowUnderTheClick)
{
    const std::vector<std::string> paths = {"/clips/a.mxf", "/clips/day 2/b.mxf", "/clips/c.mxf"};
    MainWindow w;
    for (const std::string& path : paths) {
        w.taskList().AppendFromCommandLine(path);
    }
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.start();
    UrlCatcher desktop;
    QDesktopServices::setUrlHandler("file", &desktop, "open");
    const auto onRow = [&](int row, const char* entry) {
        const QPoint at = grid(w)->visualRect(grid(w)->model()->index(row, 0)).center();
        QContextMenuEvent event(QContextMenuEvent::Mouse, at, grid(w)->viewport()->mapToGlobal(at));
        QApplication::sendEvent(grid(w)->viewport(), &event);
        EXPECT_TRUE(w.rowMenu()->isVisible());
        for (QAction* action : w.rowMenu()->actions()) {
            if (action->text() == entry) {
                action->trigger();
            }
        }
        w.rowMenu()->close();
    };
    onRow(1, "Copy path");
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QString::fromStdString(paths[1]));
    onRow(1, "Open containing folder");
    EXPECT_EQ(desktop.urls, QList<QUrl>{QUrl::fromLocalFile("/clips/day 2")});
    onRow(0, "Remove");
    EXPECT_EQ(rows(w), (std::vector<std::string>{paths[1], paths[2]}));
    onRow(1, "Check again");
    EXPECT_EQ(w.controller().state(), RunState::Single);
    ASSERT_TRUE(waitForState(w, RunState::Idle));
    EXPECT_FALSE(w.taskList().item(0).finished());
    EXPECT_TRUE(w.taskList().item(1).finished());
    QDesktopServices::unsetUrlHandler("file");
}

TEST_F(MainWindowTest, TheCheckedRowIsMarkedKeptInViewAndStopEndsTheRun)
{
    MainWindow w;
    for (int i = 0; i < 15; ++i) { // gone at once, each a tick
        w.taskList().AppendFromCommandLine((m_dir / ("gone" + std::to_string(i) + ".ts")).string());
    }
    w.taskList().AppendFromCommandLine(test::testClip("long.ts").string());
    w.taskList().AppendFromCommandLine(test::testClip("h264_aac.mp4").string());
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.start();
    w.command(kIdCheckAll);
    const QModelIndex longRow = grid(w)->model()->index(15, TaskListModel::StatusColumn);
    ASSERT_TRUE(QTest::qWaitFor([&] { return longRow.data() == QString("16 of 17"); }, 30000));
    EXPECT_TRUE(longRow.data(Qt::FontRole).value<QFont>().bold());
    EXPECT_TRUE(grid(w)->viewport()->rect().intersects(grid(w)->visualRect(longRow)));
    EXPECT_TRUE(w.control(kIdStop)->isEnabled());

    const auto asked = std::chrono::steady_clock::now();
    static_cast<QPushButton*>(w.control(kIdStop))->click();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(4));
    EXPECT_EQ(w.controller().state(), RunState::Idle);
    EXPECT_FALSE(w.controller().busy());
    EXPECT_EQ(statusCell(w), QString("Stopped"));
    EXPECT_FALSE(w.control(kIdStop)->isEnabled());
    EXPECT_TRUE(longRow.data().toString().isEmpty());
    EXPECT_FALSE(longRow.data(Qt::FontRole).isValid());
    for (std::size_t row = 0; row < w.taskList().size(); ++row) {
        EXPECT_EQ(w.taskList().item(row).finished(), row < 15) << row;
    }
    w.command(kIdCheckAll); // goes on where it stopped
    ASSERT_TRUE(QTest::qWaitFor([&] { return statusCell(w) == QString("Working..."); }));
    EXPECT_EQ(longRow.data().toString(), QString("16 of 17"));
}

TEST_F(MainWindowTest, CheckLevelOptionIsStoredAndChecksAtIt)
{
    MainWindow w;
    w.taskList().AppendFromCommandLine(test::testClip("h264_aac.mp4").string());
    w.start();
    QMenu* options = static_cast<QPushButton*>(w.control(kIdOptionsButton))->menu();
    for (const int level : {1, 4, 2}) {
        SCOPED_TRACE(level);
        options->actions().at(level - 1)->trigger();
        std::string stored;
        m_store.ReadString(kSectionOptions, "Check.Level", stored);
        EXPECT_EQ(stored, std::to_string(level));
        for (QAction* action : options->actions()) {
            EXPECT_EQ(action->isChecked(), action == options->actions().at(level - 1));
        }
        select(w, 0);
        w.command(kIdCheckSelected);
        ASSERT_TRUE(waitForState(w, RunState::Idle));
        EXPECT_EQ(w.taskList().item(0).result()->checkLevel, level);
    }
}

// The selected clip's timeline marks each placed issue where it lies in the clip; choosing
// an issue in the tree marks it on the timeline and shows its picture, and clicking a mark
// chooses its issue in the tree.
TEST_F(MainWindowTest, TimelineMarksTheIssuesAndFollowsTheTreeBothWays)
{
    MainWindow w;
    QMenu* options = static_cast<QPushButton*>(w.control(kIdOptionsButton))->menu();
    options->actions().at(3)->trigger(); // level 4: a frozen run as well as the gap
    w.taskList().AppendFromCommandLine(test::testClip("jump_video_high.ts").string());
    w.resize(900, 700);
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    w.start();
    w.command(kIdCheckAll);
    ASSERT_TRUE(waitForState(w, RunState::Idle));
    select(w, 0);
    const QcResult& result = *w.taskList().item(0).result();
    auto* timeline = static_cast<ClipTimeline*>(w.control(kIdTimeline));
    ASSERT_GT(timeline->span(), 0.0);

    std::vector<int> placed;
    for (std::size_t i = 0; i < result.issues.size(); ++i) {
        const QcIssue& issue = result.issues.at(i);
        if (!issue.hasPosition()) {
            continue;
        }
        placed.push_back(static_cast<int>(i));
        SCOPED_TRACE(issue.text);
        // Video starts with the clip here: the mark's left edge is at / span of the lanes.
        const QRect mark = timeline->markRect(static_cast<int>(i));
        const double share = hundredNsToSeconds(issue.at) / timeline->span();
        EXPECT_NEAR(mark.left(), timeline->lanesLeft() + share * timeline->lanesWidth(), 1.5);
        if (issue.length != kNoTime) {
            EXPECT_NEAR(
                mark.width(),
                hundredNsToSeconds(issue.length) / timeline->span() * timeline->lanesWidth(), 1.5);
        }
    }
    ASSERT_EQ(placed.size(), 2U) << "the gap at 4.00 and the frozen run";
    EXPECT_EQ(timeline->markCount(), 2);

    const auto treeRowOf = [&](int issue) -> QTreeWidgetItem* {
        for (QTreeWidgetItemIterator it(tree(w)); *it != nullptr; ++it) {
            if ((*it)->data(kIssueSeverityColumn, kIssueIndexRole) == issue) {
                return *it;
            }
        }
        return nullptr;
    };
    auto* picture = static_cast<QLabel*>(w.control(kIdIssuePicture));
    for (const int issue : placed) {
        SCOPED_TRACE(result.issues.at(static_cast<std::size_t>(issue)).text);
        QTreeWidgetItem* row = treeRowOf(issue);
        ASSERT_NE(row, nullptr);
        tree(w)->setCurrentItem(row);
        EXPECT_EQ(timeline->selectedIssue(), issue);
        ASSERT_TRUE(QTest::qWaitFor([&] { return !picture->pixmap().isNull(); }, 20000))
            << picture->text().toStdString();
        EXPECT_EQ(picture->pixmap().width(), 160);
    }
    // The other way: a click on each mark chooses its issue's row.
    for (const int issue : {placed[1], placed[0]}) {
        QTest::mouseClick(timeline, Qt::LeftButton, {},
                          timeline->markRect(issue).center() + QPoint(1, 0));
        ASSERT_NE(tree(w)->currentItem(), nullptr);
        EXPECT_EQ(tree(w)->currentItem()->data(kIssueSeverityColumn, kIssueIndexRole), issue);
        EXPECT_EQ(timeline->selectedIssue(), issue);
    }
    // An issue without a place marks nothing and takes no picture.
    for (std::size_t i = 0; i < result.issues.size(); ++i) {
        if (!result.issues.at(i).hasPosition()) {
            tree(w)->setCurrentItem(treeRowOf(static_cast<int>(i)));
            EXPECT_EQ(timeline->selectedIssue(), -1);
            EXPECT_TRUE(picture->isHidden());
            break;
        }
    }
    if (const char* shots = std::getenv("TARVOQC_SCREENSHOTS")) {
        tree(w)->setCurrentItem(treeRowOf(placed[1]));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !picture->pixmap().isNull(); }, 20000));
        QTest::qWait(100); // the picture's row takes its height
        w.grab().save(QString::fromLocal8Bit(shots) + "/window-timeline.png");
    }
}

// "Options" > "Delivery profile" stores the profile's name and grades the next checks by
// it; "technical" takes it away again.
TEST_F(MainWindowTest, DeliveryProfileOptionIsStoredAndGradesTheChecks)
{
    // Set before the window reads the profile folders; no other thread reads it then.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::setenv("TARVOQC_PROFILES", TARVOQC_SOURCE_DIR "/profiles", 1);
    MainWindow w;
    w.taskList().AppendFromCommandLine(test::testClip("mpeg2_pcm.mxf").string());
    w.start();
    QMenu* options = static_cast<QPushButton*>(w.control(kIdOptionsButton))->menu();
    QMenu* profiles = options->actions().back()->menu();
    ASSERT_NE(profiles, nullptr);
    const auto entry = [&](const QString& text) -> QAction* {
        for (QAction* action : profiles->actions()) {
            if (action->text().startsWith(text)) {
                return action;
            }
        }
        return nullptr;
    };
    ASSERT_NE(entry("Streaming delivery"), nullptr);
    EXPECT_TRUE(entry("technical")->isChecked());
    for (const auto& [text, key, profile, containerIssues] :
         {std::tuple{"Streaming delivery", "streaming", "Streaming delivery", 1},
          std::tuple{"technical", "", "", 0}}) {
        SCOPED_TRACE(text);
        entry(text)->trigger();
        EXPECT_TRUE(entry(text)->isChecked());
        EXPECT_EQ(readSettingText(m_store.name(), kCheckProfile), key);
        select(w, 0);
        w.command(kIdCheckSelected);
        ASSERT_TRUE(waitForState(w, RunState::Idle));
        const QcResult& result = *w.taskList().item(0).result();
        EXPECT_EQ(result.profile, profile);
        EXPECT_EQ(test::countText(result, "Container mxf, profile wants mp4, mov"),
                  containerIssues);
    }
    ::unsetenv("TARVOQC_PROFILES"); // NOLINT(concurrency-mt-unsafe)
}

TEST_F(MainWindowTest, ClosingAtRandomMomentsOfACheckNeverHangs)
{
    std::mt19937 random(20261123);
    for (int round = 0; round < 6; ++round) {
        const int delay = static_cast<int>(random() % 1500);
        SCOPED_TRACE(delay);
        auto w = std::make_unique<MainWindow>();
        w->taskList().AppendFromCommandLine(test::testClip("long.ts").string());
        w->taskList().AppendFromCommandLine(test::testClip("h264_aac.mp4").string());
        w->start();
        w->command(kIdCheckAll);
        QTest::qWait(delay);
        w->close();
        const auto began = std::chrono::steady_clock::now();
        w.reset(); // stops the running check
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
    }
}

// A clip whose check crashes takes nothing with it: the window, its list and the results
// before it stay, the clip shows "0/5 ERROR" with the crash, and the next clip is checked.
TEST_F(MainWindowTest, AClipThatCrashesItsCheckCostsThatRowOnly)
{
    const test::TempDir dir;
    const std::string crashing = (dir / "crash-me.mp4").string();
    fs::copy_file(test::testClip("h264_aac.mp4"), crashing);
    closeIdleWorkers(); // the next workers start with the fault rule
    // Set while no worker runs; the workers started next read it.
    ::setenv("TARVOQC_WORKER_FAULT", "segv:crash-me", 1); // NOLINT(concurrency-mt-unsafe)
    MainWindow w;
    for (const std::string& clip : {test::testClip("h264_aac.mp4").string(), crashing,
                                    test::testClip("mpeg2_mp2.ts").string()}) {
        w.taskList().AppendFromCommandLine(clip);
    }
    w.start();
    w.command(kIdCheckAll);
    ASSERT_TRUE(QTest::qWaitFor([&] { return statusCell(w) == QString("Finished"); }, 60000));
    ::unsetenv("TARVOQC_WORKER_FAULT"); // NOLINT(concurrency-mt-unsafe)
    ASSERT_EQ(w.taskList().size(), 3u);
    const char* expected[] = {"5/5 OK", "0/5 ERROR", "4/5 Good"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(grid(w)->model()->index(i, TaskListModel::StatusColumn).data().toString(),
                  QString(expected[i]));
    }
    select(w, 1);
    ASSERT_EQ(tree(w)->topLevelItemCount(), 1);
    EXPECT_EQ(tree(w)->topLevelItem(0)->child(0)->text(2).toStdString(),
              "Check process crashed: signal 11 (SIGSEGV, Segmentation fault)");
}

} // namespace

#include "test_mainwindow.moc"
