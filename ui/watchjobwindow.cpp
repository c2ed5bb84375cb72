#include "ui/watchjobwindow.h"

#include <QActionGroup>
#include <QFile>
#include <QGridLayout>
#include <QLabel>
#include <QMenu>
#include <QSystemTrayIcon>
#include <filesystem>

#include "batch/checkrunner.h"
#include "batch/watchservice.h"
#include "settings/profilestore.h"
#include "ui/programicon.h"

namespace tarvoqc {

namespace {

QString fromUtf8(std::string_view text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::string toPath(const QString& text)
{
    return QFile::encodeName(text).toStdString();
}

CMkEdit* folderField(QWidget* parent, int id)
{
    auto* field = new CMkEdit(QString(), id, parent);
    field->setReadOnly(true);
    field->setMinimumWidth(80);
    return field;
}

} // namespace

QString trayTip(const QString& title)
{
    return title.left(kTrayTipMaxChars);
}

// ---- Setup dialog -----------------------------------------------------------------------

QString WatchJobSetupDialog::thresholdText(int threshold)
{
    if (threshold == kWatchAnyClip) {
        return QStringLiteral("Any clip");
    }
    if (threshold >= 1 && threshold <= kWatchThresholdMax) {
        return fromUtf8(scoreText(threshold));
    }
    return {};
}

WatchJobSetupDialog::WatchJobSetupDialog(const WatchJobSettings& settings, QWidget* parent)
    : CWDlgClass(parent), m_settings(settings)
{
    setWindowTitle(QStringLiteral("Setup Watch Job"));
    setFixedSize(414, 354);
    setPlacementName(QStringLiteral("JOBSETUP"), false);

    // Rows of two columns: what the row is and its button; a folder row puts its field
    // (the whole width, so that a path shows) and its picker under its label or toggle.
    // A layout rather than fixed positions, so that every row keeps the height its controls
    // need in the desktop's font; the height left over goes evenly between the rows.
    auto* rows = new QGridLayout(this);
    rows->setColumnStretch(0, 1);
    rows->setColumnStretch(1, 1);
    int row = 0;
    const auto nextRow = [&] {
        rows->setRowStretch(++row, 1); // an empty row: the gap
        ++row;
    };
    const auto label = [this](const char* text) {
        auto* l = new QLabel(QString::fromUtf8(text), this);
        l->setWordWrap(true);
        return l;
    };
    const auto folderRow = [&](QWidget* first, int fieldId, int pickId) {
        rows->addWidget(first, row++, 0, 1, 3, Qt::AlignLeft);
        rows->addWidget(folderField(this, fieldId), row, 0, 1, 2);
        auto* pick = new CMkButton(QStringLiteral("..."), pickId, this);
        pick->setFixedWidth(pick->fontMetrics().horizontalAdvance(pick->text()) + 20);
        rows->addWidget(pick, row, 2);
        nextRow();
    };
    const auto buttonRow = [&](const char* text, CMkButton* button) {
        rows->addWidget(label(text), row, 0);
        rows->addWidget(button, row, 1, 1, 2);
        nextRow();
    };

    auto* status = new CMkButton(QString(), kIdStatus, this);
    status->setToggle(true);
    buttonRow("Status", status);

    folderRow(label("Input Folder"), kIdInputField, kIdInputPick);

    buttonRow("Actions", new CMkButton(QStringLiteral("Quality check"), kIdAction, this));

    auto* threshold = new CMkButton(QString(), kIdThreshold, this);
    buttonRow("Clip is GOOD when QC score is equal or better than", threshold);
    m_thresholdMenu = new QMenu(threshold);
    auto* choices = new QActionGroup(m_thresholdMenu);
    for (int value : {kWatchAnyClip, 1, 2, 3, 4, 5}) {
        QAction* entry = m_thresholdMenu->addAction(thresholdText(value));
        entry->setCheckable(true);
        entry->setData(value);
        choices->addAction(entry);
        connect(entry, &QAction::triggered, this, [this, value] {
            m_settings.goodThreshold = value;
            showSettings();
        });
        if (value == kWatchAnyClip) {
            m_thresholdMenu->addSeparator();
        }
    }
    threshold->setMenu(m_thresholdMenu);

    auto* good = new CMkButton(QStringLiteral("Move GOOD clips to folder:"), kIdGoodToggle, this);
    good->setToggle(true);
    folderRow(good, kIdGoodField, kIdGoodPick);
    auto* bad = new CMkButton(QStringLiteral("Move BAD clips to folder:"), kIdBadToggle, this);
    bad->setToggle(true);
    folderRow(bad, kIdBadField, kIdBadPick);

    rows->addWidget(new CMkButton(QStringLiteral("Cancel"), kIdCancel, this), row, 0,
                    Qt::AlignLeft);
    auto* ok = new CMkButton(QStringLiteral("OK"), kIdOk, this);
    ok->setDefault(true);
    rows->addWidget(ok, row, 1, 1, 2, Qt::AlignRight);

    setTabOrderList({kIdStatus, kIdInputPick, kIdThreshold, kIdGoodToggle, kIdGoodPick,
                     kIdBadToggle, kIdBadPick, kIdOk, kIdCancel, 0});
    showSettings();
}

void WatchJobSetupDialog::showSettings()
{
    auto* status = static_cast<CMkButton*>(control(kIdStatus));
    status->setChecked(m_settings.enabled);
    status->setText(m_settings.enabled ? QStringLiteral("ENABLED") : QStringLiteral("Disabled"));
    showFolder(kIdInputField, m_settings.sourceFolder);
    control(kIdThreshold)->setProperty("text", thresholdText(m_settings.goodThreshold));
    for (QAction* entry : m_thresholdMenu->actions()) {
        entry->setChecked(!entry->isSeparator() &&
                          entry->data().toInt() == m_settings.goodThreshold);
    }
    const struct
    {
        int toggle, field, pick;
        bool on;
        const std::string& folder;
    } moves[] = {
        {kIdGoodToggle, kIdGoodField, kIdGoodPick, m_settings.moveGood, m_settings.goodFolder},
        {kIdBadToggle, kIdBadField, kIdBadPick, m_settings.moveBad, m_settings.badFolder}};
    for (const auto& move : moves) {
        static_cast<CMkButton*>(control(move.toggle))->setChecked(move.on);
        showFolder(move.field, move.folder);
        control(move.field)->setEnabled(move.on);
        control(move.pick)->setEnabled(move.on);
    }
}

void WatchJobSetupDialog::showFolder(int fieldId, const std::string& folder)
{
    auto* field = static_cast<CMkEdit*>(control(fieldId));
    const QString text = QFile::decodeName(folder.c_str());
    field->setText(text); // the cursor goes to the end, so a long path shows its last part
    field->setToolTip(text);
}

bool WatchJobSetupDialog::acceptable() const
{
    if (!m_settings.enabled) {
        return true;
    }
    return !m_settings.sourceFolder.empty() &&
           (!m_settings.moveGood || !m_settings.goodFolder.empty()) &&
           (!m_settings.moveBad || !m_settings.badFolder.empty());
}

void WatchJobSetupDialog::onCommand(int id)
{
    const auto pick = [this](const char* title, std::string& folder) {
        const QString chosen =
            kitPickFolder(this, QString::fromUtf8(title), QFile::decodeName(folder.c_str()));
        if (!chosen.isEmpty()) {
            folder = toPath(chosen);
        }
    };
    switch (id) {
    case kIdStatus:
        m_settings.enabled = !m_settings.enabled;
        break;
    case kIdInputPick:
        pick("Set input folder", m_settings.sourceFolder);
        break;
    case kIdGoodToggle:
        m_settings.moveGood = !m_settings.moveGood;
        break;
    case kIdGoodPick:
        pick("Set GOOD clips output folder", m_settings.goodFolder);
        break;
    case kIdBadToggle:
        m_settings.moveBad = !m_settings.moveBad;
        break;
    case kIdBadPick:
        pick("Set Bad clips output folder", m_settings.badFolder);
        break;
    case kIdOk:
        if (acceptable()) {
            accept();
        }
        return;
    case kIdAction: // checking is the only action
    default:
        CWDlgClass::onCommand(id);
        return;
    }
    showSettings();
}

// ---- Job window -------------------------------------------------------------------------

WatchJobWindow::WatchJobWindow(QWidget* parent) : CWDlgClass(parent)
{
    // Never shown: everything goes through the tray menu and the daily log.
    resize(400, 300);
    auto* test = new CMkButton(QStringLiteral("Test01"), kIdTest01, this);
    test->setGeometry(4, 4, 48, 20);
    setWindowIcon(programIcon());
    m_title = fromUtf8(titleText());
    setWindowTitle(m_title);

    m_trayMenu = new QMenu(this);
    connect(m_trayMenu->addAction(QStringLiteral("Job setup")), &QAction::triggered, this,
            [this] { postCommand(kCommandJobSetup); });
    m_trayMenu->addSeparator();
    connect(m_trayMenu->addAction(QStringLiteral("Close and Exit")), &QAction::triggered, this,
            [this] { postCommand(kCommandCloseAndExit); });
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        m_tray = new QSystemTrayIcon(programIcon(), this);
        m_tray->setProperty("kitId", kTrayIconId);
        m_tray->setToolTip(trayTip(m_title));
        // The menu opens on a right click; other clicks do nothing.
        m_tray->setContextMenu(m_trayMenu);
        m_tray->show();
    }

    const std::string logs = logsFolder();
    std::error_code ec;
    std::filesystem::create_directories(logs, ec);
    m_log.setFolder(logs, "QC ");
    m_log.setEnabled(1);
    m_log.writeNow("Start " + m_title.toStdString());

    m_job = std::make_unique<WatchJob>(&m_log);
    m_job->setSettings(loadWatchServiceSettings(settingsPath()));

    // The timer's ticks are left to the default handling.
    m_timer.start(1000);
}

WatchJobWindow::~WatchJobWindow()
{
    shutDown();
}

void WatchJobWindow::shutDown()
{
    if (m_shutDown) {
        return;
    }
    m_shutDown = true;
    m_timer.stop();
    if (m_tray != nullptr) {
        // Gone from the tray at once, before the worker is waited for, so no stale icon
        // stays behind while a check ends.
        m_tray->hide();
        delete m_tray;
        m_tray = nullptr;
    }
    // The worker ends before "Exit" is written, so that no line of its follows it.
    m_job->Stop();
    m_log.writeNow("Exit " + m_title.toStdString());
}

void WatchJobWindow::onCommand(int id)
{
    switch (id) {
    case kIdTest01:
        m_job->Start();
        break;
    case kCommandJobSetup:
        runSetup();
        break;
    case kCommandCloseAndExit:
        closeDialog();
        break;
    default:
        CWDlgClass::onCommand(id);
        break;
    }
}

void WatchJobWindow::closeDialog()
{
    shutDown();
    done(QDialog::Accepted);
}

void WatchJobWindow::runSetup()
{
    WatchJobSetupDialog setup(m_job->settings());
    if (setup.exec() != QDialog::Accepted) {
        return;
    }
    m_job->setSettings(setup.settings());
    saveWatchJobSettings(settingsPath(), setup.settings());
    emit setupAccepted();
}

} // namespace tarvoqc
