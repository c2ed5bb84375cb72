#include <QApplication>
#include <QLabel>
#include <QMenu>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "settings/profilestore.h"
#include "tests/support/testsupport.h"
#include "ui/watchjobwindow.h"

using namespace tarvoqc;
namespace fs = std::filesystem;

namespace {

// The daily log is UTF-16LE; its ASCII lines read back as text.
std::string logText(const fs::path& folder)
{
    std::string text;
    for (const auto& entry :
         fs::exists(folder) ? fs::directory_iterator(folder) : fs::directory_iterator()) {
        text += test::asciiOfUtf16(test::readFile(entry.path()));
    }
    return text;
}

QStringList menuTexts(const QMenu* menu)
{
    QStringList texts;
    for (const QAction* a : menu->actions()) {
        texts << (a->isSeparator() ? QStringLiteral("-")
                                   : a->text() + (a->isChecked() ? QStringLiteral(" *") : ""));
    }
    return texts;
}

class WatchWindowTest : public ::testing::Test
{
protected:
    void SetUp() override { ::setenv(kHomeVariable, m_dir.path().c_str(), 1); }
    void TearDown() override { ::unsetenv(kHomeVariable); }

    test::TempDir m_dir;
};

TEST_F(WatchWindowTest, CreationTrayMenuAndCloseAndExit)
{
    const fs::path logs = m_dir / "LogsQC";
    {
        WatchJobWindow window;
        EXPECT_FALSE(window.isVisible());
        EXPECT_EQ(window.size(), QSize(400, 300));
        EXPECT_EQ(window.control(kIdTest01)->geometry(), QRect(4, 4, 48, 20));
        EXPECT_TRUE(window.title().startsWith("Tarvo Quality Check v"));
        EXPECT_TRUE(window.timerRunning());
        EXPECT_EQ(menuTexts(window.trayMenu()), QStringList({"Job setup", "-", "Close and Exit"}));
        EXPECT_NE(logText(logs).find("\tStart " + window.title().toStdString()), std::string::npos);
        EXPECT_EQ(window.job().settings(), WatchJobSettings{}); // no "Job00": the defaults

        window.command(kIdTest01);
        EXPECT_TRUE(window.job().isRunning());
        window.trayMenu()->actions().at(2)->trigger(); // "Close and Exit", posted
        ASSERT_TRUE(QTest::qWaitFor([&] { return !window.job().isRunning(); }));
        EXPECT_EQ(window.trayIcon(), nullptr); // gone, or never there offscreen
        EXPECT_NE(logText(logs).find("\tExit " + window.title().toStdString()), std::string::npos);
    }
    // Destroying the window after it ended does not log a second "Exit"; it is the last line.
    const std::string text = logText(logs);
    EXPECT_EQ(text.find("\tExit "), text.rfind("\tExit "));
    EXPECT_EQ(text.find('\n', text.rfind("\tExit ")), std::string::npos);

    const QString longTitle(200, 'x');
    EXPECT_EQ(trayTip(longTitle), QString(127, 'x'));
    EXPECT_EQ(trayTip("short"), QString("short"));
}

TEST_F(WatchWindowTest, SetupDialogRowsAndTheOkRule)
{
    WatchJobSettings start;
    start.goodThreshold = 4;
    WatchJobSetupDialog dialog(start);
    EXPECT_EQ(dialog.windowTitle(), QString("Setup Watch Job"));
    EXPECT_EQ(dialog.size(), QSize(414, 354));
    const auto text = [&](int id) { return dialog.control(id)->property("text").toString(); };
    EXPECT_EQ(text(WatchJobSetupDialog::kIdStatus), QString("Disabled"));
    EXPECT_EQ(text(WatchJobSetupDialog::kIdAction), QString("Quality check"));
    EXPECT_EQ(text(WatchJobSetupDialog::kIdThreshold), QString("4/5 Good"));
    EXPECT_EQ(menuTexts(dialog.thresholdMenu()),
              QStringList({"Any clip", "-", "1/5 Very BAD", "2/5 BAD", "3/5 Playable", "4/5 Good *",
                           "5/5 OK"}));
    QStringList labels;
    for (const QLabel* l : dialog.findChildren<QLabel*>()) {
        labels << l->text();
    }
    EXPECT_EQ(labels, QStringList({"Status", "Input Folder", "Actions",
                                   "Clip is GOOD when QC score is equal or better than"}));
    EXPECT_EQ(text(WatchJobSetupDialog::kIdGoodToggle), QString("Move GOOD clips to folder:"));
    EXPECT_EQ(text(WatchJobSetupDialog::kIdBadToggle), QString("Move BAD clips to folder:"));

    // Pickers: their titles, and the folder they give.
    QStringList titles;
    setFolderAnswerer([&](const QString& title, const QString&) {
        titles << title;
        return QString("/picked/") + QString::number(titles.size());
    });
    const auto click = [&](int id) { static_cast<QPushButton*>(dialog.control(id))->click(); };
    // Each step clicks one control (0: none), then tries OK on a copy of the state.
    const std::tuple<const char*, int, bool> steps[] = {
        {"disabled: OK whatever the folders", 0, true},
        {"enabled without a source folder", WatchJobSetupDialog::kIdStatus, false},
        {"a source folder", WatchJobSetupDialog::kIdInputPick, true},
        {"move GOOD on, no folder", WatchJobSetupDialog::kIdGoodToggle, false},
        {"a GOOD folder", WatchJobSetupDialog::kIdGoodPick, true},
        {"move BAD on, no folder", WatchJobSetupDialog::kIdBadToggle, false},
        {"a BAD folder", WatchJobSetupDialog::kIdBadPick, true}};
    for (const auto& [what, control, okAccepted] : steps) {
        SCOPED_TRACE(what);
        if (control != 0) {
            click(control);
        }
        WatchJobSetupDialog copy(dialog.settings());
        copy.show();
        copy.command(kIdOk);
        EXPECT_EQ(copy.result() == QDialog::Accepted, okAccepted);
        EXPECT_EQ(copy.isVisible(), !okAccepted);
    }
    setFolderAnswerer({});
    EXPECT_EQ(text(WatchJobSetupDialog::kIdStatus), QString("ENABLED"));
    EXPECT_EQ(titles, QStringList({"Set input folder", "Set GOOD clips output folder",
                                   "Set Bad clips output folder"}));
    // The fields follow their toggles.
    click(WatchJobSetupDialog::kIdGoodToggle);
    EXPECT_FALSE(dialog.control(WatchJobSetupDialog::kIdGoodField)->isEnabled());
    EXPECT_FALSE(dialog.control(WatchJobSetupDialog::kIdGoodPick)->isEnabled());
    EXPECT_TRUE(dialog.control(WatchJobSetupDialog::kIdBadField)->isEnabled());
    dialog.thresholdMenu()->actions().at(0)->trigger(); // "Any clip"
    EXPECT_EQ(text(WatchJobSetupDialog::kIdThreshold), QString("Any clip"));

    EXPECT_EQ(dialog.settings(), (WatchJobSettings{.enabled = true,
                                                   .sourceFolder = "/picked/1/",
                                                   .goodFolder = "/picked/2/",
                                                   .badFolder = "/picked/3/",
                                                   .moveGood = false,
                                                   .moveBad = true,
                                                   .goodThreshold = 0}));
}

// The dialog keeps its fixed size whatever the desktop's font; its seven rows must still fit
// whole, top to bottom, none over another, no control squeezed below its height or its text.
class SetupDialogLayout : public WatchWindowTest, public ::testing::WithParamInterface<int>
{};

TEST_P(SetupDialogLayout, EveryRowIsWholeInsideTheWindowAndApartFromTheOthers)
{
    const QFont desktop = QApplication::font();
    QFont font = desktop;
    if (GetParam() > 0) {
        font.setPointSize(GetParam());
    }
    QApplication::setFont(font);
    const auto restore = qScopeGuard([&] { QApplication::setFont(desktop); });
    WatchJobSettings settings;
    settings.enabled = true;
    settings.moveGood = true;
    settings.sourceFolder = "/srv/media/incoming/2026-11-23/channel-one/deliveries/";
    settings.goodFolder = "/srv/media/passed/";
    WatchJobSetupDialog dialog(settings);
    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
    EXPECT_EQ(dialog.size(), QSize(414, 354));

    const auto labelled = [&](const QString& text) -> QWidget* {
        for (QLabel* l : dialog.findChildren<QLabel*>()) {
            if (l->text() == text) {
                return l;
            }
        }
        return nullptr;
    };
    const auto c = [&](int id) { return dialog.control(id); };
    using D = WatchJobSetupDialog;
    const std::vector<std::vector<QWidget*>> rows = {
        {labelled("Status"), c(D::kIdStatus)},
        {labelled("Input Folder"), c(D::kIdInputField), c(D::kIdInputPick)},
        {labelled("Actions"), c(D::kIdAction)},
        {labelled("Clip is GOOD when QC score is equal or better than"), c(D::kIdThreshold)},
        {c(D::kIdGoodToggle), c(D::kIdGoodField), c(D::kIdGoodPick)},
        {c(D::kIdBadToggle), c(D::kIdBadField), c(D::kIdBadPick)},
        {c(kIdCancel), c(kIdOk)}};
    std::vector<QWidget*> all;
    int above = 0; // the bottom of the row before
    for (std::size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE("row " + std::to_string(i + 1));
        QRect band;
        for (QWidget* w : rows[i]) {
            ASSERT_NE(w, nullptr);
            const QRect g = w->geometry();
            SCOPED_TRACE(w->metaObject()->className() +
                         (" " + w->property("text").toString()).toStdString());
            EXPECT_TRUE(w->isVisible());
            EXPECT_TRUE(dialog.rect().contains(g));
            EXPECT_GE(g.height(), w->sizeHint().height());
            if (w->hasHeightForWidth()) {
                EXPECT_GE(g.height(), w->heightForWidth(g.width()));
            }
            if (auto* button = qobject_cast<QPushButton*>(w)) {
                EXPECT_GT(g.width(), button->fontMetrics().horizontalAdvance(button->text()));
            }
            for (const QWidget* other : all) {
                EXPECT_FALSE(g.intersects(other->geometry()));
            }
            all.push_back(w);
            band |= g;
        }
        EXPECT_GE(band.top(), above);
        above = band.bottom() + 1;
    }
    // Cancel at the bottom left, OK at the bottom right.
    EXPECT_LT(c(kIdCancel)->geometry().right(), dialog.width() / 2);
    EXPECT_GT(c(kIdOk)->geometry().left(), dialog.width() / 2);
}

// 0: the desktop's own font; then larger ones.
INSTANTIATE_TEST_SUITE_P(Fonts, SetupDialogLayout, ::testing::Values(0, 10, 11, 12));

TEST_F(WatchWindowTest, JobSetupWritesTheKeysOnOkOnly)
{
    WatchJobWindow window;
    const fs::path ini = m_dir / "TarvoQC.ini";
    const auto answer = [](bool ok) {
        QTimer::singleShot(0, [ok] {
            auto* setup = qobject_cast<WatchJobSetupDialog*>(QApplication::activeModalWidget());
            ASSERT_NE(setup, nullptr);
            setup->command(ok ? kIdOk : kIdCancel);
        });
    };
    const std::string before = fs::exists(ini) ? test::readFile(ini) : "";
    answer(false);
    window.command(kCommandJobSetup);
    EXPECT_EQ(fs::exists(ini) ? test::readFile(ini) : "", before);
    answer(true);
    window.command(kCommandJobSetup);
    // The dialog's defaults; the other values' forms are WatchJob.SettingsOfSectionJob00's.
    EXPECT_NE(test::readFile(ini).find("[Job00]\nEnabled=0\nSource.Folder=\nGood.QCTsh=3\n"
                                       "Good.Move.Enable=0\nGood.Move.Folder=\nBad.Move.Enable=0\n"
                                       "Bad.Move.Folder=\n"),
              std::string::npos);
}

TEST(WatchStateText, SaysWhatTheJobDoesAndItsNewestResult)
{
    WatchJobStatus waiting;
    waiting.running = true;
    WatchJobStatus checking = waiting;
    checking.checking = "/in/Q" + std::string(70, 'x') + "Z.mxf";
    checking.progress = 42000;
    WatchJobStatus results = waiting;
    results.checked = 3;
    results.moved = 2;
    results.moveFailures = 1;
    results.results = 3;
    results.lastPath = "/in/news.ts";
    results.lastScore = 2;
    WatchJobStatus good = results;
    good.lastGood = true;
    good.lastScore = 5;
    good.moveFailures = 2;
    const std::tuple<const char*, WatchJobStatus, bool, const char*> cases[] = {
        {"before the start", {}, true, "Not running"},
        {"switched off", waiting, false, "Disabled"},
        {"between passes", waiting, true, "Waiting for clips in /in/"},
        {"a long name loses its middle", checking, true,
         "Checking Qxxxxxxxxxxxxxxxxxxxxxxxxxxxx\u2026xxxxxxxxxxxxxxxxxxxxxxxxxZ.mxf (42%)"},
        {"a BAD result and a failed move", results, true,
         "Waiting for clips in /in/\nLast: BAD news.ts (2/5 BAD)\nChecked 3, moved 2, 1 move "
         "failed"},
        {"a GOOD one", good, true,
         "Waiting for clips in /in/\nLast: GOOD news.ts (5/5 OK)\nChecked 3, moved 2, 2 moves "
         "failed"},
    };
    for (const auto& [what, status, enabled, expected] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(watchStateText(status, enabled, "/in/"), QString::fromUtf8(expected));
    }
}

// The tip follows the job on the window's one-second tick; a BAD result raises one notice,
// a GOOD one none, and a clip already reported raises none again.
TEST_F(WatchWindowTest, TrayTipFollowsTheJobAndABadClipRaisesOneNotice)
{
    const fs::path in = m_dir / "in";
    fs::create_directories(in);
    WatchJobWindow window;
    QSignalSpy notices(&window, &WatchJobWindow::badClipNotice);
    const QString title = trayTip(window.title()) + "\n";
    EXPECT_EQ(window.tip(), trayTip(window.title()));
    WatchJobSettings settings;
    settings.enabled = true;
    settings.sourceFolder = in.string() + "/";
    window.job().setSettings(settings);
    window.command(kIdTest01);
    const auto tipSays = [&](const QString& text) {
        return QTest::qWaitFor([&] { return window.tip().contains(text); }, 60000);
    };
    EXPECT_TRUE(window.tip().startsWith(title + "Waiting for clips in " +
                                        QString::fromStdString(settings.sourceFolder)))
        << window.tip().toStdString();

    const auto drop = [&](const char* clip, const char* name) {
        const fs::path to = in / name;
        fs::copy_file(test::testClip(clip), to);
        fs::last_write_time(to, fs::file_time_type::clock::now() - std::chrono::minutes(1));
        window.job().wakeUp();
        return to.string();
    };
    // The first pass (of an empty folder) has ended, so the drop is seen by the next.
    ASSERT_TRUE(window.job().waitForStatus([](const WatchJobStatus& s) { return s.passes > 0; },
                                           std::chrono::seconds(60)));
    drop("mpeg2_pcm.mxf", "clean.mxf");
    ASSERT_TRUE(tipSays("\nLast: GOOD clean.mxf (5/5 OK)\nChecked 1, moved 0"))
        << window.tip().toStdString();
    EXPECT_TRUE(window.tip().startsWith(title));
    EXPECT_EQ(notices.count(), 0);

    const std::string damaged = drop("jump_video_highest.ts", "damaged.ts");
    ASSERT_TRUE(tipSays("\nLast: BAD damaged.ts (1/5 Very BAD)")) << window.tip().toStdString();
    ASSERT_EQ(notices.count(), 1);
    EXPECT_EQ(notices.at(0).at(0).toString(), QString("BAD clip"));
    EXPECT_EQ(notices.at(0).at(1).toString(), QString::fromStdString("1/5 Very BAD " + damaged));

    // The next pass checks both again (nothing is moved) but reports nothing new.
    const std::uint64_t passes = window.job().status().passes;
    window.job().wakeUp();
    ASSERT_TRUE(window.job().waitForStatus(
        [&](const WatchJobStatus& s) { return s.passes > passes; }, std::chrono::seconds(60)));
    QTest::qWait(1100);
    EXPECT_EQ(notices.count(), 1);
    EXPECT_TRUE(window.tip().contains("\nLast: BAD damaged.ts (1/5 Very BAD)"));
}

TEST_F(WatchWindowTest, ProgramMovesADroppedClipAndLogsItsExit)
{
    const fs::path in = m_dir / "in";
    const fs::path good = m_dir / "good";
    fs::create_directories(in);
    fs::create_directories(good);
    WatchJobSettings settings;
    settings.enabled = true;
    settings.sourceFolder = in.string() + "/";
    settings.moveGood = true;
    settings.goodFolder = good.string() + "/";
    ASSERT_TRUE(saveWatchJobSettings((m_dir / "TarvoQC.ini").string(), settings));

    test::ChildProcess watch({"env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", "-u",
                              "QT_QPA_PLATFORM", "TARVOQC_HOME=" + m_dir.path().string(),
                              TARVOQC_WATCH_EXE});
    const fs::path clip = test::testClip("h264_aac.mp4");
    fs::copy_file(clip, in / "drop.mp4");
    // Settled long ago, so the next pass takes it.
    fs::last_write_time(in / "drop.mp4",
                        fs::file_time_type::clock::now() - std::chrono::minutes(1));
    ASSERT_TRUE(QTest::qWaitFor([&] { return fs::exists(good / "drop.mp4.qcout"); }, 30000));
    EXPECT_EQ(test::sha256sumOf(good / "drop.mp4"), test::sha256sumOf(clip));
    EXPECT_FALSE(fs::exists(in / "drop.mp4"));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.waitFor(std::chrono::seconds(10)), 0);
    const std::string log = logText(m_dir / "LogsQC");
    EXPECT_NE(log.find("\tQC 5/5 OK " + (in / "drop.mp4").string()), std::string::npos) << log;
    EXPECT_NE(
        log.find("\tMoved " + (in / "drop.mp4").string() + " -> " + (good / "drop.mp4").string()),
        std::string::npos);
    EXPECT_NE(log.find("\tExit Tarvo Quality Check v"), std::string::npos);
}

} // namespace
