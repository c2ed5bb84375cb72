#include "ui/controlkit.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPointer>
#include <QStyle>
#include <QStyleOption>
#include <QTextEdit>
#include <QUrl>
#include <algorithm>

#include "ui/windowplacement.h"

namespace tarvoqc {

namespace {

ProfileStore* g_settings = nullptr;
QPointer<QWidget> g_mainWindow;
MessageBoxAnswerer g_messageBoxAnswerer;
OpenFilesAnswerer g_openFilesAnswerer;
SaveFileAnswerer g_saveFileAnswerer;
FolderAnswerer g_folderAnswerer;

constexpr const char* kKitIdProperty = "kitId";

bool isEnter(const QKeyEvent* key)
{
    return key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter;
}

std::uint8_t shortcutModifiers(Qt::KeyboardModifiers modifiers)
{
    std::uint8_t bits = 0;
    if (modifiers & Qt::AltModifier) {
        bits |= kShortcutAlt;
    }
    if (modifiers & Qt::ControlModifier) {
        bits |= kShortcutCtrl;
    }
    if (modifiers & Qt::ShiftModifier) {
        bits |= kShortcutShift;
    }
    return bits;
}

} // namespace

void setKitSettings(ProfileStore* store)
{
    g_settings = store;
}

ProfileStore* kitSettings()
{
    return g_settings;
}

void setKitMainWindow(QWidget* window)
{
    g_mainWindow = window;
}

QWidget* kitMainWindow()
{
    return g_mainWindow.data();
}

QColor colourFromBgr(std::uint32_t bgr)
{
    return QColor(static_cast<int>(bgr & 0xFF), static_cast<int>((bgr >> 8) & 0xFF),
                  static_cast<int>((bgr >> 16) & 0xFF));
}

int kitId(const QWidget* widget)
{
    return widget == nullptr ? 0 : widget->property(kKitIdProperty).toInt();
}

void setKitId(QWidget* widget, int id)
{
    widget->setProperty(kKitIdProperty, id);
}

// ---- Boxes ------------------------------------------------------------------------------

namespace {

// Escape and the close box end the box without an answer: a question is never answered
// by a key that only means "go away" (QMessageBox would take No for it).
class KitMessageBox : public QMessageBox
{
public:
    using QMessageBox::QMessageBox;

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier) {
            QDialog::done(0);
            return;
        }
        QMessageBox::keyPressEvent(event);
    }
    void closeEvent(QCloseEvent* event) override
    {
        event->accept();
        QDialog::done(0);
    }
};

} // namespace

QMessageBox::StandardButton kitMessageBox(QWidget* parent, const MessageBoxRequest& request)
{
    if (g_messageBoxAnswerer) {
        return g_messageBoxAnswerer(request);
    }
    KitMessageBox box(request.icon, request.caption, request.text, request.buttons, parent);
    box.setDefaultButton(request.defaultButton);
    const int answer = box.exec();
    return box.clickedButton() == nullptr ? QMessageBox::NoButton
                                          : static_cast<QMessageBox::StandardButton>(answer);
}

void setMessageBoxAnswerer(MessageBoxAnswerer answerer)
{
    g_messageBoxAnswerer = std::move(answerer);
}

QStringList kitOpenFiles(QWidget* parent, const OpenFilesRequest& request)
{
    if (g_openFilesAnswerer) {
        return g_openFilesAnswerer(request);
    }
    // The dialog shows each filter's description exactly as given and matches by its
    // patterns, which Qt wants separated by blanks.
    QStringList filters;
    for (const QString& pair : request.filters) {
        const QString description = pair.section('|', 0, 0);
        QString patterns = pair.section('|', 1);
        patterns.replace(';', ' ');
        filters << description + " (" + patterns + ")";
    }
    QFileDialog dialog(parent, request.caption, request.folder);
    dialog.setFileMode(QFileDialog::ExistingFiles);
    dialog.setOption(QFileDialog::HideNameFilterDetails);
    dialog.setNameFilters(filters);
    return dialog.exec() == QDialog::Accepted ? dialog.selectedFiles() : QStringList();
}

void setOpenFilesAnswerer(OpenFilesAnswerer answerer)
{
    g_openFilesAnswerer = std::move(answerer);
}

QString kitSaveFile(QWidget* parent, const SaveFileRequest& request)
{
    if (g_saveFileAnswerer) {
        return g_saveFileAnswerer(request);
    }
    QStringList filters;
    for (const QString& pair : request.filters) {
        filters << pair.section('|', 0, 0) + " (" + pair.section('|', 1).replace(';', ' ') + ")";
    }
    QFileDialog dialog(parent, request.caption, request.folder);
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    dialog.setOption(QFileDialog::HideNameFilterDetails);
    dialog.setNameFilters(filters);
    dialog.setDefaultSuffix(request.defaultSuffix);
    dialog.selectFile(request.fileName);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) {
        return {};
    }
    return dialog.selectedFiles().front();
}

void setSaveFileAnswerer(SaveFileAnswerer answerer)
{
    g_saveFileAnswerer = std::move(answerer);
}

QString kitPickFolder(QWidget* parent, const QString& title, const QString& start)
{
    QString folder = g_folderAnswerer ? g_folderAnswerer(title, start)
                                      : QFileDialog::getExistingDirectory(parent, title, start);
    if (!folder.isEmpty() && !folder.endsWith('/')) {
        folder += '/';
    }
    return folder;
}

void setFolderAnswerer(FolderAnswerer answerer)
{
    g_folderAnswerer = std::move(answerer);
}

// ---- CWDlgClass ---------------------------------------------------------------------------

CWDlgClass::CWDlgClass(QWidget* parent) : QDialog(parent)
{
    // Key presses are seen before the focused control gets them, as a dialog manager would.
    qApp->installEventFilter(this);
}

CWDlgClass::~CWDlgClass()
{
    qApp->removeEventFilter(this);
    savePlacement();
}

void CWDlgClass::setShortcutTable(std::vector<ShortcutRow> rows)
{
    const auto end = std::find_if(rows.begin(), rows.end(), [](const ShortcutRow& row) {
        return (row.modifiers & kShortcutEnd) != 0;
    });
    rows.erase(end, rows.end());
    m_shortcuts = std::move(rows);
}

void CWDlgClass::setTabOrderList(std::vector<int> ids)
{
    const auto end = std::find_if(ids.begin(), ids.end(), [](int id) { return id < 1; });
    ids.erase(end, ids.end());
    m_tabOrder = std::move(ids);
}

void CWDlgClass::setPlacementName(QString name, bool keepPosition)
{
    m_placementName = std::move(name);
    m_keepPosition = keepPosition;
}

void CWDlgClass::restorePlacement()
{
    restoreWindowPlacement(*this, m_placementName.toStdString(), kitSettings(), kitMainWindow());
}

void CWDlgClass::savePlacement()
{
    saveWindowPlacement(*this, m_placementName.toStdString(), m_keepPosition, kitSettings());
}

QWidget* CWDlgClass::control(int id) const
{
    const auto children = findChildren<QWidget*>();
    const auto it = std::find_if(children.begin(), children.end(),
                                 [id](const QWidget* w) { return kitId(w) == id; });
    return it == children.end() ? nullptr : *it;
}

void CWDlgClass::focusControl(QWidget* control)
{
    if (control == nullptr) {
        return;
    }
    control->setFocus(Qt::TabFocusReason);
    if (auto* edit = qobject_cast<QLineEdit*>(control)) {
        edit->selectAll();
    }
}

void CWDlgClass::postCommand(int id)
{
    QMetaObject::invokeMethod(
        this, [this, id] { onCommand(id); }, Qt::QueuedConnection);
}

void CWDlgClass::onCommand(int id)
{
    emit commandReceived(id);
    if (id == kIdOk) {
        accept();
    } else if (id == kIdCancel) {
        QDialog::reject();
    }
}

void CWDlgClass::closeDialog()
{
    QDialog::reject();
}

void CWDlgClass::closeEvent(QCloseEvent* event)
{
    // A close request goes through the dialog's close operation, which decides.
    event->ignore();
    if (!m_closing) {
        m_closing = true;
        closeDialog();
        m_closing = false;
    }
}

void CWDlgClass::reject()
{
    // Escape ends the dialog the way a close request does.
    closeDialog();
}

QWidget* CWDlgClass::listedControl(QWidget* widget) const
{
    QWidget* child = nullptr;
    for (QWidget* w = widget; w != nullptr && w != this; w = w->parentWidget()) {
        if (std::find(m_tabOrder.begin(), m_tabOrder.end(), kitId(w)) != m_tabOrder.end()) {
            return w;
        }
        child = w;
    }
    return child;
}

bool CWDlgClass::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() != QEvent::KeyPress || !watched->isWidgetType()) {
        return false;
    }
    auto* target = static_cast<QWidget*>(watched);
    // Only keys meant for this dialog's own controls (not for a box or menu above it).
    if (target == this || !isAncestorOf(target) || target->window() != this) {
        return false;
    }
    return handleKey(target, static_cast<QKeyEvent*>(event));
}

bool CWDlgClass::handleKey(QWidget* target, QKeyEvent* key)
{
    const Qt::KeyboardModifiers modifiers = key->modifiers();
    const bool ctrl = (modifiers & Qt::ControlModifier) != 0;

    const std::uint8_t bits = shortcutModifiers(modifiers);
    for (const ShortcutRow& row : m_shortcuts) {
        if (row.key == key->key() && row.modifiers == bits) {
            postCommand(row.command);
            return true;
        }
    }

    bool navigation = false;
    if (key->key() == Qt::Key_Tab || key->key() == Qt::Key_Backtab) {
        navigation = true;
    } else if (isEnter(key)) {
        if (auto* button = qobject_cast<QAbstractButton*>(target)) {
            const int id = kitId(button);
            if (id == kIdOk || id == kIdCancel) {
                return false;
            }
            if (qobject_cast<CMkButton*>(button) != nullptr) {
                QMetaObject::invokeMethod(button, &QAbstractButton::click, Qt::QueuedConnection);
            }
            navigation = true;
        } else if (qobject_cast<QPlainTextEdit*>(target) != nullptr) {
            if (ctrl) {
                return false; // a line break in a multi-line field
            }
            navigation = true;
        } else if (qobject_cast<QTextEdit*>(target) != nullptr) {
            return false; // rich text takes its own Enter
        } else {
            navigation = true;
        }
    }
    if (!navigation) {
        return false;
    }

    QWidget* child = listedControl(target);
    if (isEnter(key) && !ctrl && qobject_cast<CMaGrid*>(child) != nullptr) {
        return false;
    }
    const bool backwards = (modifiers & Qt::ShiftModifier) != 0 || key->key() == Qt::Key_Backtab;
    if (navigate(child, backwards)) {
        return true;
    }
    // Without a tab-order list (or off it) the desktop's own focus chain handles Tab; an
    // Enter that counts as navigation is used up so that it does not end the dialog.
    return isEnter(key);
}

bool CWDlgClass::navigate(QWidget* listed, bool backwards)
{
    if (m_tabOrder.empty() || listed == nullptr) {
        return false;
    }
    const auto it = std::find(m_tabOrder.begin(), m_tabOrder.end(), kitId(listed));
    if (it == m_tabOrder.end()) {
        return false;
    }
    const auto n = static_cast<std::ptrdiff_t>(m_tabOrder.size());
    std::ptrdiff_t at = it - m_tabOrder.begin();
    for (std::ptrdiff_t step = 1; step < n; ++step) {
        at = backwards ? (at + n - 1) % n : (at + 1) % n;
        QWidget* next = control(m_tabOrder[static_cast<std::size_t>(at)]);
        if (next != nullptr && next->isEnabled() && next->isVisibleTo(this) &&
            next->focusPolicy() != Qt::NoFocus) {
            focusControl(next);
            break;
        }
    }
    return true;
}

// ---- Controls ---------------------------------------------------------------------------

CMkButton::CMkButton(const QString& caption, int id, QWidget* parent, int flags)
    : QPushButton(caption, parent), m_flags(flags)
{
    setKitId(this, id);
    // Enter on OK and Cancel is theirs; on other buttons the dialog handles it.
    setAutoDefault(id == kIdOk || id == kIdCancel);
    setEnabled((flags & kButtonStartsDisabled) == 0);
    connect(this, &QPushButton::clicked, this, [this, id] {
        for (QWidget* w = parentWidget(); w != nullptr; w = w->parentWidget()) {
            if (auto* dialog = qobject_cast<CWDlgClass*>(w)) {
                dialog->command(id);
                return;
            }
        }
    });
}

void CMkButton::setToggle(bool toggle)
{
    setCheckable(toggle);
    setStyleSheet(toggle ? QStringLiteral("text-align: left; padding-left: 6px;") : QString());
}

CMkEdit::CMkEdit(const QString& text, int id, QWidget* parent) : QLineEdit(text, parent)
{
    setKitId(this, id);
}

CMaGrid::CMaGrid(int id, QWidget* parent) : QTreeView(parent)
{
    setKitId(this, id);
    setRootIsDecorated(false);
    setUniformRowHeights(true);
    setItemsExpandable(false);
    setAllColumnsShowFocus(true);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setAlternatingRowColors(true);
    header()->setStretchLastSection(false);
}

void CMaGrid::setDropHandler(CanAcceptFn canAccept, DropFn drop)
{
    m_canAccept = std::move(canAccept);
    m_drop = std::move(drop);
    setAcceptDrops(true);
    viewport()->setAcceptDrops(true);
    setDropIndicatorShown(true);
}

int CMaGrid::selectedRow() const
{
    const QModelIndexList rows =
        selectionModel() == nullptr ? QModelIndexList() : selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.front().row();
}

std::vector<std::string> CMaGrid::droppedPaths(const QMimeData* data)
{
    std::vector<std::string> paths;
    if (data == nullptr || !data->hasUrls()) {
        return paths;
    }
    for (const QUrl& url : data->urls()) {
        if (url.isLocalFile()) {
            paths.push_back(QFile::encodeName(url.toLocalFile()).toStdString());
        }
    }
    return paths;
}

bool CMaGrid::acceptDrag(QDropEvent* event)
{
    const std::vector<std::string> paths = droppedPaths(event->mimeData());
    if (!m_canAccept || paths.empty() || !m_canAccept(paths)) {
        event->ignore();
        return false;
    }
    event->setDropAction(Qt::LinkAction);
    event->accept();
    return true;
}

void CMaGrid::keyPressEvent(QKeyEvent* event)
{
    if (isEnter(event) && (event->modifiers() & Qt::ControlModifier) == 0) {
        if (currentIndex().isValid()) {
            emit activated(currentIndex());
        }
        event->accept();
        return;
    }
    QTreeView::keyPressEvent(event);
}

void CMaGrid::dragEnterEvent(QDragEnterEvent* event)
{
    acceptDrag(event);
}

void CMaGrid::dragMoveEvent(QDragMoveEvent* event)
{
    acceptDrag(event);
}

void CMaGrid::dropEvent(QDropEvent* event)
{
    if (!acceptDrag(event) || !m_drop) {
        return;
    }
    const QModelIndex at = indexAt(event->position().toPoint());
    // Below the last row the files are appended.
    const int row = at.isValid() ? at.row() : (model() == nullptr ? 0 : model()->rowCount());
    m_drop(row, droppedPaths(event->mimeData()));
}

CxTree::CxTree(int id, QWidget* parent) : QTreeWidget(parent)
{
    setKitId(this, id);
    setHeaderHidden(true);
    setUniformRowHeights(true);
}

CMkProgressBar::CMkProgressBar(int id, QWidget* parent) : QProgressBar(parent)
{
    setKitId(this, id);
    setTextVisible(false);
}

Grip::Grip(int id, int initialTop, QWidget* parent) : QWidget(parent), m_top(initialTop)
{
    setKitId(this, id);
    setObjectName(QStringLiteral("GripH"));
    setCursor(Qt::SplitVCursor);
    setFixedHeight(kHeight);
}

void Grip::setRange(int minTop, int maxTop)
{
    m_min = minTop;
    m_max = maxTop;
    setTop(m_top);
}

void Grip::setTop(int top)
{
    const int kept = std::max(m_min, std::min(top, m_max));
    if (kept != m_top) {
        m_top = kept;
        emit moved(m_top);
    }
}

void Grip::mousePressEvent(QMouseEvent* event)
{
    m_pressOffset = event->position().toPoint().y();
}

void Grip::mouseMoveEvent(QMouseEvent* event)
{
    if (event->buttons() & Qt::LeftButton) {
        setTop(mapToParent(event->position().toPoint()).y() - m_pressOffset);
    }
}

void Grip::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    QStyleOption option;
    option.initFrom(this);
    option.state |= QStyle::State_Horizontal;
    style()->drawControl(QStyle::CE_Splitter, &option, &painter, this);
}

CMkStatusBar::CMkStatusBar(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
}

void CMkStatusBar::addCell(int id, int width, int flags)
{
    auto* cell = new QLabel(this);
    setKitId(cell, id);
    cell->setFrameStyle(QFrame::Panel | QFrame::Sunken);
    cell->setContentsMargins(4, 0, 4, 0);
    cell->setAutoFillBackground(true);
    cell->setAlignment(Qt::AlignVCenter |
                       ((flags & kCellRightEnd) != 0 ? Qt::AlignRight : Qt::AlignLeft));
    cell->installEventFilter(this);
    auto* box = static_cast<QHBoxLayout*>(layout());
    if (width > 0) {
        cell->setFixedWidth(width);
        box->addWidget(cell);
    } else {
        cell->setMinimumWidth(0);
        cell->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
        box->addWidget(cell, 1);
    }
}

QLabel* CMkStatusBar::cell(int id) const
{
    const auto cells = findChildren<QLabel*>();
    const auto it =
        std::find_if(cells.begin(), cells.end(), [id](const QLabel* c) { return kitId(c) == id; });
    return it == cells.end() ? nullptr : *it;
}

void CMkStatusBar::setCellText(int id, const QString& text)
{
    if (QLabel* c = cell(id)) {
        c->setText(text);
    }
}

QString CMkStatusBar::cellText(int id) const
{
    const QLabel* c = cell(id);
    return c == nullptr ? QString() : c->text();
}

void CMkStatusBar::setCellColours(int id, std::uint32_t text, std::uint32_t back)
{
    if (QLabel* c = cell(id)) {
        QPalette palette = c->palette();
        palette.setColor(QPalette::WindowText, colourFromBgr(text));
        palette.setColor(QPalette::Window, colourFromBgr(back));
        c->setPalette(palette);
    }
}

void CMkStatusBar::setCellDefaultColours(int id)
{
    if (QLabel* c = cell(id)) {
        c->setPalette(palette());
    }
}

bool CMkStatusBar::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::MouseButtonRelease) {
        if (auto* c = qobject_cast<QLabel*>(watched)) {
            emit cellClicked(kitId(c));
        }
    }
    return false;
}

} // namespace tarvoqc
