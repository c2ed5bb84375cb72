#include <QAbstractItemModelTester>
#include <QMenu>
#include <QMimeData>
#include <QRegularExpression>
#include <QTest>
#include <QUrl>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "batch/workerprocess.h"
#include "settings/profilestore.h"
#include "tests/support/testsupport.h"
#include "ui/mainwindow.h"
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

TEST_F(MainWindowTest, CheckAllShowsScoresColoursAndIssueGroups)
{
    // clip, status text, cell background and text colours (0x00BBGGRR), issue groups shown
    const std::tuple<const char*, const char*, std::uint32_t, std::uint32_t, const char*> rows[] = {
        {"h264_aac.mp4", "5/5 OK", 0x00FF00, 0x000000, ""},
        {"mpeg2_mp2.ts", "4/5 Good", 0x0000FF, 0x000000, "MediaTime "},
        {"truncated.mxf", "3/5 Playable", 0x0000E0, 0x000000, "MediaTime "},
        {"jump_video_high.ts", "2/5 BAD", 0x0000A0, 0xC0C0C0, "Frames "},
        {"pcm.wav", "1/5 Very BAD", 0x000080, 0xC0C0C0, "MediaTime "},
        {"text.mov", "0/5 ERROR", 0x000040, 0xC0C0C0, "File "}};
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
    for (int i = 0; i < static_cast<int>(std::size(rows)); ++i) {
        const auto& [clip, text, back, fore, groups] = rows[i];
        SCOPED_TRACE(clip);
        const QModelIndex status = grid(w)->model()->index(i, TaskListModel::StatusColumn);
        EXPECT_EQ(status.data().toString(), QString(text));
        EXPECT_EQ(status.data(Qt::BackgroundRole).value<QColor>(), colour(back));
        EXPECT_EQ(status.data(Qt::ForegroundRole).value<QColor>(), colour(fore));

        select(w, i);
        EXPECT_TRUE(w.control(kIdCheckSelected)->isEnabled());
        // The tree as "group{issue|issue|}" in its order, against the result's issues by
        // category in the order the check raised them.
        std::string shown;
        std::string names;
        for (int g = 0; g < tree(w)->topLevelItemCount(); ++g) {
            const QTreeWidgetItem* group = tree(w)->topLevelItem(g);
            EXPECT_TRUE(group->isExpanded());
            names += group->text(0).toStdString() + " ";
            shown += group->text(0).toStdString() + "{";
            for (int c = 0; c < group->childCount(); ++c) {
                shown += group->child(c)->text(0).toStdString() + "|";
            }
            shown += "}";
        }
        std::string expected;
        const QcResult& result = *w.taskList().item(static_cast<std::size_t>(i)).result();
        for (int c = 0; c < kCategoryCount; ++c) {
            std::string items;
            for (const auto& issue : result.issues.all()) {
                items += static_cast<int>(issue->category) == c ? issue->text + "|" : "";
            }
            expected += items.empty()
                            ? ""
                            : std::string(categoryText(QcIssueCategory(c))) + "{" + items + "}";
        }
        EXPECT_EQ(names, groups);
        EXPECT_EQ(shown, expected);
    }
    // The window thread is told of the end; a second "Check all" has nothing to do.
    EXPECT_EQ(w.controller().state(), RunState::Idle);
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

TEST_F(MainWindowTest, LayoutFollowsTheGripAtEverySize)
{
    MainWindow w;
    w.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
    // width, height, where the grip is dragged, where it stops
    const std::tuple<int, int, int, int> rows[] = {{624, 442, 230, 230},
                                                   {800, 600, 300, 300},
                                                   {800, 600, 50, 128},
                                                   {800, 600, 590, 472},
                                                   {500, 300, 150, 150}};
    for (const auto& [width, height, gripTo, expectedTop] : rows) {
        SCOPED_TRACE(testing::Message() << width << "x" << height << " grip " << gripTo);
        w.resize(width, height);
        auto* grip = static_cast<Grip*>(w.control(kIdGrip));
        grip->setTop(gripTo);
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
        EXPECT_EQ(w.control(kIdIssueTree)->geometry(), QRect(0, b, wd, h - b - 20));
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
    EXPECT_EQ(tree(w)->topLevelItem(0)->child(0)->text(0).toStdString(),
              "Check process crashed: signal 11 (SIGSEGV, Segmentation fault)");
}

} // namespace
