#include <QPlainTextEdit>
#include <QScreen>
#include <QStandardItemModel>
#include <QTest>
#include <QTextEdit>
#include <QTimer>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "settings/profilestore.h"
#include "tests/support/testsupport.h"
#include "ui/controlkit.h"
#include "ui/versioncheck.h"
#include "ui/windowplacement.h"

using namespace tarvoqc;

namespace {

// A settings file of its own for each test, never the user's.
class KitTest : public ::testing::Test
{
protected:
    void SetUp() override { setKitSettings(&m_store); }
    void TearDown() override
    {
        setKitSettings(nullptr);
        setKitMainWindow(nullptr);
        setMessageBoxAnswerer({});
    }
    std::string saved(const char* name)
    {
        std::string value;
        m_store.ReadString(kSectionWindowsSize, name, value);
        return value;
    }

    test::TempDir m_dir;
    ProfileStore m_store{(m_dir / "TarvoQC.ini").string(), m_dir.path().string() + "/"};
};

TEST(WindowPlacement, ValueTextsAndNumbers)
{
    // maximised, with position, the text, its numbers
    const std::tuple<bool, bool, std::string, std::vector<int>> rows[] = {
        {false, false, "640, 480", {640, 480}},
        {false, true, "100, 80, 640, 480", {100, 80, 640, 480}},
        {true, false, "-1, 640, 480", {-1, 640, 480}},
        {true, true, "-1, 100, 80, 640, 480", {-1, 100, 80, 640, 480}}};
    for (const auto& [maximised, position, text, numbers] : rows) {
        SCOPED_TRACE(text);
        EXPECT_EQ(placementText({maximised, position, QRect(100, 80, 640, 480)}), text);
        EXPECT_EQ(placementNumbers(text + " G:7, 8"), numbers);
    }
}

TEST_F(KitTest, PlacementRoundTripsForEveryForm)
{
    for (const auto& [keepPosition, maximise] : {std::pair(false, false), std::pair(true, false),
                                                 std::pair(false, true), std::pair(true, true)}) {
        SCOPED_TRACE(testing::Message()
                     << "position " << keepPosition << " maximised " << maximise);
        {
            CWDlgClass dialog;
            dialog.setPlacementName("DLG", keepPosition);
            dialog.setGeometry(30, 40, 500, 300);
            dialog.show();
            ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
            if (maximise) {
                dialog.showMaximized();
                ASSERT_TRUE(QTest::qWaitFor([&] { return dialog.isMaximized(); }));
            }
        } // saved on destruction
        EXPECT_EQ(saved("DLG").rfind("-1, ", 0) == 0, maximise) << saved("DLG");

        CWDlgClass again;
        again.setPlacementName("DLG", keepPosition);
        again.resize(200, 100);
        again.restorePlacement();
        again.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&again));
        EXPECT_EQ(again.isMaximized(), maximise);
        if (maximise) {
            again.showNormal();
            ASSERT_TRUE(QTest::qWaitFor([&] { return !again.isMaximized(); }));
        }
        EXPECT_TRUE(QTest::qWaitFor([&] { return again.size() == QSize(500, 300); }))
            << saved("DLG");
        if (keepPosition) {
            EXPECT_EQ(again.geometry().topLeft(), QPoint(30, 40));
        }
    }
}

TEST_F(KitTest, SizeOnlyIsCentredOverTheMainWindowNeverBelowZero)
{
    QWidget main;
    main.setGeometry(100, 100, 800, 600);
    main.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&main));
    setKitMainWindow(&main);
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    // saved value, whether the main window is shown, the place restored
    const std::tuple<const char*, bool, QPoint> rows[] = {
        {"640, 480", true, QPoint(180, 160)},
        {"1200, 1000 G:x", true, QPoint(0, 0)},
        {"700, 200", true, QPoint(150, 300)},
        // Without a visible main window the screen is the reference.
        {"100, 50", false, QPoint(screen.width() / 2 - 50, screen.height() / 2 - 25)}};
    for (const auto& [value, shown, expected] : rows) {
        SCOPED_TRACE(value);
        main.setVisible(shown);
        m_store.WriteString(kSectionWindowsSize, "BOX", value);
        CWDlgClass dialog;
        dialog.setPlacementName("BOX", false);
        dialog.restorePlacement();
        EXPECT_EQ(dialog.pos(), expected);
    }
}

TEST_F(KitTest, EmptyNameSavesNothingAndMissingKeyChangesNothing)
{
    {
        CWDlgClass unnamed;
        unnamed.setPlacementName("", true);
        unnamed.resize(300, 200);
    }
    EXPECT_EQ(test::readFile(m_dir / "TarvoQC.ini").find("WindowsSize"), std::string::npos);
    CWDlgClass fresh;
    fresh.setPlacementName("NEVER", true);
    fresh.setGeometry(7, 8, 300, 200);
    fresh.restorePlacement();
    EXPECT_EQ(fresh.geometry(), QRect(7, 8, 300, 200));
}

// A small dialog built from the kit, with a tab order and shortcuts.
class KeyDialog : public CWDlgClass
{
public:
    KeyDialog()
    {
        edit = new CMkEdit("some text", 10, this);
        button = new CMkButton("Go", 11, this);
        multi = new QPlainTextEdit(this);
        setKitId(multi, 12);
        rich = new QTextEdit(this);
        setKitId(rich, 13);
        grid = new CMaGrid(14, this);
        grid->setModel(&model);
        model.appendRow(new QStandardItem("row"));
        ok = new CMkButton("OK", kIdOk, this);
        // A button inside a bar, listed out of creation order, and a disabled one.
        auto* bar = new QWidget(this);
        (new CMkButton("In a bar", 15, bar))->setGeometry(0, 0, 100, 24);
        (new CMkButton("Off", 16, this))->setEnabled(false);
        int y = 0;
        for (QWidget* w :
             std::initializer_list<QWidget*>{edit, button, multi, rich, grid, ok, bar}) {
            w->setGeometry(0, y, 200, 24);
            y += 30;
        }
        setTabOrderList({10, 15, 11, 12, 14, 16, 0, 13});
        setShortcutTable({{kShortcutCtrl, Qt::Key_O, 77},
                          {kShortcutAlt | kShortcutShift, Qt::Key_X, 78},
                          {kShortcutEnd, 0, 0},
                          {kShortcutCtrl, Qt::Key_P, 79}});
        connect(this, &CWDlgClass::commandReceived, [this](int id) { commands.push_back(id); });
        multi->installEventFilter(&keysSeen);
        rich->installEventFilter(&keysSeen);
    }

    // Counts the Return presses that reach a field after the dialog has seen them.
    struct KeyCounter : QObject
    {
        int count = 0;
        bool eventFilter(QObject*, QEvent* event) override
        {
            const auto* key =
                event->type() == QEvent::KeyPress ? static_cast<QKeyEvent*>(event) : nullptr;
            count += key != nullptr && (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter)
                         ? 1
                         : 0;
            return false;
        }
    } keysSeen;

    QStandardItemModel model;
    CMkEdit* edit;
    CMkButton* button;
    QPlainTextEdit* multi;
    QTextEdit* rich;
    CMaGrid* grid;
    CMkButton* ok;
    std::vector<int> commands;
};

TEST_F(KitTest, DialogKeyboardRules)
{
    constexpr auto kNone = Qt::NoModifier;
    constexpr auto kCtrl = Qt::ControlModifier;
    // what, focus before, key, focus after (0: the dialog ended), command posted (0: none),
    // presses that reached the multi-line or rich-text field
    const std::tuple<const char*, int, Qt::Key, Qt::KeyboardModifiers, int, int, int> rows[] = {
        {"Tab moves along the list, into a bar", 10, Qt::Key_Tab, kNone, 15, 0, 0},
        {"Tab goes on from a button in a bar", 15, Qt::Key_Tab, kNone, 11, 0, 0},
        {"Shift+Tab wraps to the end, passing a disabled one", 10, Qt::Key_Backtab,
         Qt::ShiftModifier, 14, 0, 0},
        {"Tab wraps to the start, passing a disabled one", 14, Qt::Key_Tab, kNone, 10, 0, 0},
        {"Enter in a field navigates", 10, Qt::Key_Return, kNone, 15, 0, 0},
        {"Enter on a button clicks and navigates", 11, Qt::Key_Return, kNone, 12, 11, 0},
        {"Enter in a multi-line field navigates", 12, Qt::Key_Enter, kNone, 14, 0, 0},
        {"Ctrl+Enter stays in a multi-line field", 12, Qt::Key_Return, kCtrl, 12, 0, 1},
        {"Enter on a grid is the grid's", 14, Qt::Key_Return, kNone, 14, 0, 0},
        {"Ctrl+Enter on a grid navigates", 14, Qt::Key_Return, kCtrl, 10, 0, 0},
        {"Rich text keeps Enter", 13, Qt::Key_Return, kNone, 13, 0, 1},
        {"Shortcut row", 10, Qt::Key_O, kCtrl, 10, 77, 0},
        {"Two modifiers", 11, Qt::Key_X, Qt::AltModifier | Qt::ShiftModifier, 11, 78, 0},
        {"Rows after the end marker are not read", 10, Qt::Key_P, kCtrl, 10, 0, 0},
        {"Enter on OK is OK's", kIdOk, Qt::Key_Return, kNone, 0, kIdOk, 0}};
    for (const auto& [what, from, key, modifiers, focusAfter, command, fieldKeys] : rows) {
        SCOPED_TRACE(what);
        KeyDialog dialog;
        dialog.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
        dialog.activateWindow();
        dialog.focusControl(dialog.control(from));
        ASSERT_TRUE(
            QTest::qWaitFor([&] { return QApplication::focusWidget() == dialog.control(from); }));
        QTest::keyClick(QApplication::focusWidget(), key, modifiers);
        QCoreApplication::sendPostedEvents(); // the posted clicks and commands
        QCoreApplication::sendPostedEvents();
        if (focusAfter == 0) {
            EXPECT_FALSE(dialog.isVisible());
            EXPECT_EQ(dialog.result(), QDialog::Accepted);
        } else {
            EXPECT_EQ(kitId(QApplication::focusWidget()), focusAfter);
        }
        EXPECT_EQ(dialog.commands, command ? std::vector<int>{command} : std::vector<int>{});
        EXPECT_EQ(dialog.keysSeen.count, fieldKeys);
    }
}

TEST_F(KitTest, FocusOnATextFieldSelectsItsText)
{
    KeyDialog dialog;
    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&dialog));
    dialog.focusControl(dialog.control(15));
    QTest::keyClick(dialog.control(15), Qt::Key_Backtab, Qt::ShiftModifier);
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return QApplication::focusWidget() == static_cast<QWidget*>(dialog.edit); }));
    EXPECT_EQ(dialog.edit->selectedText(), QString("some text"));
}

TEST_F(KitTest, VersionCheckAsksInOrderAndStopsAtNo)
{
    const std::uint32_t v = (59 << 16) | (37 << 8) | 100;
    const auto all = [v](std::uint32_t avformat, std::uint32_t avutil) {
        return std::vector<LibraryVersion>{{"avcodec", v, v},
                                           {"avformat", v, avformat},
                                           {"avutil", v, avutil},
                                           {"swresample", v, v},
                                           {"swscale", v, v}};
    };
    using Answers = std::vector<QMessageBox::StandardButton>;
    using Names = std::vector<std::string>;
    constexpr auto kYes = QMessageBox::Yes, kNo = QMessageBox::No;
    // what, the libraries, the answers given, the libraries asked about, whether start-up goes on
    const std::tuple<const char*, std::vector<LibraryVersion>, Answers, Names, bool> rows[] = {
        {"all equal", all(v, v), {}, {}, true},
        {"avformat differs, No", all(v + 256, v + 256), {kNo}, {"avformat"}, false},
        {"two differ", all(v - 256, v + 65536), {kYes, kYes}, {"avformat", "avutil"}, true},
        {"micro alone differs", all(v + 1, v), {kYes}, {"avformat"}, true},
        {"box closed otherwise", all(v + 1, v), {QMessageBox::NoButton}, {"avformat"}, true}};
    for (const auto& [what, libraries, answers, askedAbout, goesOn] : rows) {
        SCOPED_TRACE(what);
        std::vector<std::string> asked;
        std::size_t next = 0;
        setMessageBoxAnswerer([&](const MessageBoxRequest& box) {
            EXPECT_EQ(box.caption, QString("Error"));
            EXPECT_EQ(box.icon, QMessageBox::Warning);
            EXPECT_EQ(box.buttons, QMessageBox::Yes | QMessageBox::No);
            EXPECT_EQ(box.defaultButton, QMessageBox::No);
            asked.push_back(box.text.section(' ', 3, 3).toStdString());
            return next < answers.size() ? answers[next++] : kNo;
        });
        EXPECT_EQ(CheckMediaLibraries(nullptr, libraries), goesOn);
        EXPECT_EQ(asked, askedAbout);
    }
    // The real box: only "No" refuses; Escape and the close box are no answer at all.
    setMessageBoxAnswerer({});
    using Act = std::function<void(QMessageBox&)>;
    const std::tuple<const char*, Act, bool> real[] = {
        {"Escape", [](QMessageBox& box) { QTest::keyClick(&box, Qt::Key_Escape); }, true},
        {"close box", [](QMessageBox& box) { box.close(); }, true},
        {"Enter on the default, No",
         [](QMessageBox& box) { QTest::keyClick(&box, Qt::Key_Return); }, false},
        {"Yes", [](QMessageBox& box) { box.button(QMessageBox::Yes)->click(); }, true}};
    for (const auto& [what, act, goesOn] : real) {
        SCOPED_TRACE(what);
        QTimer::singleShot(0, [&act = act] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            ASSERT_NE(box, nullptr);
            act(*box);
        });
        EXPECT_EQ(CheckLibraryVersion(nullptr, all(v + 1, v)[1]), goesOn);
    }
    EXPECT_EQ(libraryVersionQuestion({"avcodec", 0x392264, 0x395964}),
              "Your version of avcodec (v57.89.100) is NOT the one required (v57.34.100).\n"
              "Please install the correct version or continue, but problems may happen.\n"
              "Do you want to continue?");
}

} // namespace
