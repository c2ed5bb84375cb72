#pragma once

#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTreeView>
#include <QTreeWidget>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class QMenu;

namespace tarvoqc {

class ProfileStore;

// The program's windows are built from code, control by control, at fixed pixel positions.
// Every kit control carries a command id (the "kitId" property) by which its dialog finds
// it, lists it in a tab order, and hears its clicks.
//
// Thread-safety: like every widget, the kit belongs to the window thread.

// The settings store the windows save their placement in (not owned; null: nothing is
// saved or restored). Set once at start-up, before the first window.
void setKitSettings(ProfileStore* store);
ProfileStore* kitSettings();

// The application's main window, over which restored dialogs are centred (null: none).
void setKitMainWindow(QWidget* window);
QWidget* kitMainWindow();

// Colours are packed 0x00BBGGRR.
QColor colourFromBgr(std::uint32_t bgr);

// Command id of a kit control, 0 when the widget carries none.
int kitId(const QWidget* widget);
void setKitId(QWidget* widget, int id);

// ---------------------------------------------------------------------------------------
// Message boxes and the open dialog, raised through one function each so that a test can
// answer them instead of a person.
// ---------------------------------------------------------------------------------------

struct MessageBoxRequest
{
    QString caption;
    QString text;
    QMessageBox::Icon icon = QMessageBox::Information;
    QMessageBox::StandardButtons buttons = QMessageBox::Ok;
    QMessageBox::StandardButton defaultButton = QMessageBox::Ok;
};
using MessageBoxAnswerer = std::function<QMessageBox::StandardButton(const MessageBoxRequest&)>;

// Shows the box modally (or asks the answerer, when one is set) and gives the button
// chosen; a box closed otherwise gives QMessageBox::NoButton.
QMessageBox::StandardButton kitMessageBox(QWidget* parent, const MessageBoxRequest& request);
// Replaces the boxes by answerer (empty: real boxes again).
void setMessageBoxAnswerer(MessageBoxAnswerer answerer);

struct OpenFilesRequest
{
    QString caption;
    QString folder;      // where the dialog starts
    QStringList filters; // "description|pattern;pattern" pairs, in order
};
using OpenFilesAnswerer = std::function<QStringList(const OpenFilesRequest&)>;
// A multiple-selection open dialog; the chosen files, empty when cancelled.
QStringList kitOpenFiles(QWidget* parent, const OpenFilesRequest& request);
void setOpenFilesAnswerer(OpenFilesAnswerer answerer);

struct SaveFileRequest
{
    QString caption;
    QString folder;        // where the dialog starts
    QString fileName;      // the name offered
    QStringList filters;   // "description|pattern" pairs, in order
    QString defaultSuffix; // added to a name typed without one
};
// A save dialog that asks before it replaces a file: the chosen path, empty when
// cancelled.
using SaveFileAnswerer = std::function<QString(const SaveFileRequest&)>;
QString kitSaveFile(QWidget* parent, const SaveFileRequest& request);
void setSaveFileAnswerer(SaveFileAnswerer answerer);

// A folder picker; the chosen folder with a trailing "/", empty when cancelled.
using FolderAnswerer = std::function<QString(const QString& title, const QString& start)>;
QString kitPickFolder(QWidget* parent, const QString& title, const QString& start);
void setFolderAnswerer(FolderAnswerer answerer);

// ---------------------------------------------------------------------------------------
// The dialog
// ---------------------------------------------------------------------------------------

// Ids of the two buttons that keep the keys the desktop gives them.
inline constexpr int kIdOk = 1;
inline constexpr int kIdCancel = 2;

// Modifier bits of a shortcut row.
inline constexpr std::uint8_t kShortcutAlt = 16;
inline constexpr std::uint8_t kShortcutCtrl = 8;
inline constexpr std::uint8_t kShortcutShift = 4;
// A row whose modifier byte has this bit ends the table.
inline constexpr std::uint8_t kShortcutEnd = 0x80;

struct ShortcutRow
{
    std::uint8_t modifiers = 0;
    int key = 0; // Qt::Key
    int command = 0;
};

// The program's dialog: modal or modeless, built from code. It sees every key press meant
// for one of its controls before the control does and applies the dialog keyboard rules:
//  - Enter on a kit button other than OK (1) and Cancel (2) clicks it and is a navigation
//    key; Enter on OK or Cancel goes on to the button.
//  - Enter in a text field is a navigation key, except in a multi-line field while Ctrl is
//    held (the field takes it, a line break); a rich-text field always takes it.
//  - Enter on any other control and Tab (Shift+Tab) are navigation keys.
//  - A key that matches a row of the shortcut table posts the row's command and is used up.
//  - A navigation key moves the focus along the tab-order list (ids; Shift goes back;
//    wraps at both ends; controls that are disabled or hidden are passed over) when the
//    focused control, or the control it sits in (a button in a bar), is in it. Enter
//    without Ctrl on a grid is left to the grid. Without a list the desktop's own focus
//    chain applies.
// Moving the focus to a text field selects its whole text. When the dialog is destroyed
// its placement is saved under its placement name (see windowplacement.h).
class CWDlgClass : public QDialog
{
    Q_OBJECT

public:
    explicit CWDlgClass(QWidget* parent = nullptr);
    ~CWDlgClass() override;

    // The shortcut table, read up to its end row (or its last row).
    void setShortcutTable(std::vector<ShortcutRow> rows);
    // The tab-order list, read up to the first id below 1.
    void setTabOrderList(std::vector<int> ids);

    // Placement name (empty: never saved) and whether the position is kept with the size.
    void setPlacementName(QString name, bool keepPosition);
    const QString& placementName() const { return m_placementName; }
    // Restores the saved placement of the name, when the kit has a settings store.
    void restorePlacement();
    // Saves it now (also done on destruction).
    void savePlacement();

    // The descendant control with this command id, or null.
    QWidget* control(int id) const;
    // Focuses the control; a text field gets its whole text selected.
    void focusControl(QWidget* control);

    // Sends a command to the dialog now (a kit button's click does), or queued.
    void command(int id) { onCommand(id); }
    void postCommand(int id);

    // The close operation: a close request to the window comes here; the default ends the
    // dialog with the Cancel result.
    virtual void closeDialog();

signals:
    // A command reached the dialog (a kit button's click or a shortcut).
    void commandReceived(int id);

protected:
    // Command of a kit button or shortcut; the default ends the dialog for OK and Cancel.
    virtual void onCommand(int id);

    bool eventFilter(QObject* watched, QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void reject() override;

private:
    bool handleKey(QWidget* target, QKeyEvent* key);
    bool navigate(QWidget* listed, bool backwards);
    // The focused widget or the nearest of its ancestors whose id is in the tab-order
    // list, else the dialog's direct child that holds it.
    QWidget* listedControl(QWidget* widget) const;

    std::vector<ShortcutRow> m_shortcuts;
    std::vector<int> m_tabOrder;
    QString m_placementName;
    bool m_keepPosition = false;
    bool m_closing = false;
};

// ---------------------------------------------------------------------------------------
// Controls
// ---------------------------------------------------------------------------------------

// Kit button flags: 16 puts the button at the far end of its bar; 128 creates it disabled.
inline constexpr int kButtonFarEnd = 16;
inline constexpr int kButtonStartsDisabled = 128;

// Push button, or a push-like toggle with left-aligned text (the kit's check box). A
// button with a menu pops it up under itself when pressed; any other click sends the
// button's id as a command to the kit dialog it sits in.
class CMkButton : public QPushButton
{
    Q_OBJECT

public:
    CMkButton(const QString& caption, int id, QWidget* parent, int flags = 0);
    // Makes it a push-like on/off toggle.
    void setToggle(bool toggle);
    int flags() const { return m_flags; }

private:
    int m_flags;
};

// Single-line text field. Multi-line fields are QPlainTextEdit, rich text QTextEdit.
class CMkEdit : public QLineEdit
{
    Q_OBJECT

public:
    CMkEdit(const QString& text, int id, QWidget* parent);
};

// A grid of rows and columns over a model, for large lists: uniform row heights, whole
// rows selected, one at a time. Dropped files and folders go to the drop handler with the
// row under the drop point (the row count below the last row).
class CMaGrid : public QTreeView
{
    Q_OBJECT

public:
    CMaGrid(int id, QWidget* parent);

    using CanAcceptFn = std::function<bool(const std::vector<std::string>& paths)>;
    using DropFn = std::function<void(int row, const std::vector<std::string>& paths)>;
    void setDropHandler(CanAcceptFn canAccept, DropFn drop);

    // The selected row, -1 when none.
    int selectedRow() const;

    // The local file paths of a drop's data (the file-URL list), as file-system bytes.
    static std::vector<std::string> droppedPaths(const QMimeData* data);

protected:
    // Enter is the grid's own: it opens the current row (activated) and goes no further.
    void keyPressEvent(QKeyEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    bool acceptDrag(QDropEvent* event);

    CanAcceptFn m_canAccept;
    DropFn m_drop;
};

// A tree of text nodes.
class CxTree : public QTreeWidget
{
    Q_OBJECT

public:
    CxTree(int id, QWidget* parent);
};

class CMkProgressBar : public QProgressBar
{
    Q_OBJECT

public:
    CMkProgressBar(int id, QWidget* parent);
};

// The horizontal grip ("GripH") between two panes: the user drags it up and down within
// its movable range; its top is the boundary the window lays out by.
class Grip : public QWidget
{
    Q_OBJECT

public:
    static constexpr int kHeight = 6;

    // initialTop: where the grip starts.
    Grip(int id, int initialTop, QWidget* parent);

    int top() const { return m_top; }
    int bottom() const { return m_top + kHeight; }
    // The movable range of the top; a top outside it is brought into it (min wins when
    // the range is empty).
    void setRange(int minTop, int maxTop);
    int minTop() const { return m_min; }
    int maxTop() const { return m_max; }
    // Moves the top (kept within the range) and tells moved() when it changed.
    void setTop(int top);

signals:
    void moved(int top);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    int m_top;
    int m_min = 0;
    int m_max = 1 << 20;
    int m_pressOffset = 0;
};

// Status bar cell flag 16: the cell sits at the right end.
inline constexpr int kCellRightEnd = 16;

// A bar of text cells with command ids; a click on a cell is told by cellClicked.
class CMkStatusBar : public QWidget
{
    Q_OBJECT

public:
    explicit CMkStatusBar(QWidget* parent);

    // width 0: the cell takes the space left over.
    void addCell(int id, int width, int flags = 0);
    void setCellText(int id, const QString& text);
    QString cellText(int id) const;
    // Colours 0x00BBGGRR; useDefault drops them for the bar's own.
    void setCellColours(int id, std::uint32_t text, std::uint32_t back);
    void setCellDefaultColours(int id);
    QLabel* cell(int id) const;

signals:
    void cellClicked(int id);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
};

} // namespace tarvoqc
