#include "ui/watchjobwindow.h"

#include <QActionGroup>
#include <QFile>
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

CMkEdit* folderField(QWidget* parent, int id, int x, int y)
{
    auto* field = new CMkEdit(QString(), id, parent);
    field->setReadOnly(true);
    field->setGeometry(x, y, 414 - x - 44, 22);
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

    const auto label = [this](const char* text, int y, int height = 22) {
        auto* l = new QLabel(QString::fromUtf8(text), this);
        l->setGeometry(10, y, 394, height);
        l->setWordWrap(true);
        return l;
    };
    const auto pickButton = [this](int id, int y) {
        auto* b = new CMkButton(QStringLiteral("..."), id, this);
        b->setGeometry(414 - 40, y, 30, 22);
        return b;
    };

    label("Status", 12)->setFixedWidth(110);
    auto* status = new CMkButton(QString(), kIdStatus, this);
    status->setToggle(true);
    status->setGeometry(130, 10, 120, 24);

    label("Input Folder", 46);
    folderField(this, kIdInputField, 10, 68);
    pickButton(kIdInputPick, 68);

    label("Actions", 102)->setFixedWidth(110);
    auto* action = new CMkButton(QStringLiteral("Quality check"), kIdAction, this);
    action->setGeometry(130, 100, 120, 24);

    label("Clip is GOOD when QC score is equal or better than", 136, 36);
    auto* threshold = new CMkButton(QString(), kIdThreshold, this);
    threshold->setGeometry(130, 174, 150, 24);
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
    good->setGeometry(10, 212, 200, 24);
    folderField(this, kIdGoodField, 10, 240);
    pickButton(kIdGoodPick, 240);

    auto* bad = new CMkButton(QStringLiteral("Move BAD clips to folder:"), kIdBadToggle, this);
    bad->setToggle(true);
    bad->setGeometry(10, 272, 200, 24);
    folderField(this, kIdBadField, 10, 300);
    pickButton(kIdBadPick, 300);

    auto* cancel = new CMkButton(QStringLiteral("Cancel"), kIdCancel, this);
    cancel->setGeometry(10, 354 - 34, 90, 26);
    auto* ok = new CMkButton(QStringLiteral("OK"), kIdOk, this);
    ok->setGeometry(414 - 100, 354 - 34, 90, 26);
    ok->setDefault(true);

    setTabOrderList({kIdStatus, kIdInputPick, kIdThreshold, kIdGoodToggle, kIdGoodPick,
                     kIdBadToggle, kIdBadPick, kIdOk, kIdCancel, 0});
    showSettings();
}

void WatchJobSetupDialog::showSettings()
{
    auto* status = static_cast<CMkButton*>(control(kIdStatus));
    status->setChecked(m_settings.enabled);
    status->setText(m_settings.enabled ? QStringLiteral("ENABLED") : QStringLiteral("Disabled"));
    static_cast<CMkEdit*>(control(kIdInputField))
        ->setText(QFile::decodeName(m_settings.sourceFolder.c_str()));
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
        auto* field = static_cast<CMkEdit*>(control(move.field));
        field->setText(QFile::decodeName(move.folder.c_str()));
        field->setEnabled(move.on);
        control(move.pick)->setEnabled(move.on);
    }
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
