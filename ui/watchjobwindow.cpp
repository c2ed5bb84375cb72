#include "ui/watchjobwindow.h"

#include <QActionGroup>
#include <QFile>
#include <QGridLayout>
#include <QLabel>
#include <QMenu>
#include <QSystemTrayIcon>
#include <algorithm>
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

// At most 60 characters, the middle given up (both ends tell names apart), so that one long
// name does not make the tip as wide as the screen.
QString shortName(const QString& name)
{
    constexpr qsizetype kMost = 60;
    if (name.size() <= kMost) {
        return name;
    }
    qsizetype head = (kMost - 1) / 2;
    qsizetype tail = kMost - 1 - head;
    // Never half of a character.
    if (name[head - 1].isHighSurrogate()) {
        --head;
    }
    if (name[name.size() - tail].isLowSurrogate()) {
        --tail;
    }
    return name.left(head) + QChar(0x2026) + name.right(tail);
}

QString fileNameOf(const std::string& path)
{
    const QString text = QFile::decodeName(QByteArray::fromStdString(path));
    return shortName(text.mid(text.lastIndexOf(QLatin1Char('/')) + 1));
}

} // namespace

QString trayTip(const QString& title)
{
    return title.left(kTrayTipMaxChars);
}

QString watchStateText(const WatchJobStatus& status, bool enabled, const std::string& folder)
{
    QStringList lines;
    if (!status.running) {
        lines << QStringLiteral("Not running");
    } else if (!enabled) {
        lines << QStringLiteral("Disabled");
    } else if (!status.checking.empty()) {
        lines << QStringLiteral("Checking %1 (%2%)")
                     .arg(fileNameOf(status.checking))
                     .arg(static_cast<std::int64_t>(status.progress) * 100 / kProgressMax);
    } else {
        lines << QStringLiteral("Waiting for clips in %1")
                     .arg(shortName(QFile::decodeName(QByteArray::fromStdString(folder))));
    }
    if (status.results > 0) {
        lines << QStringLiteral("Last: %1 %2 (%3)")
                     .arg(status.lastGood ? QStringLiteral("GOOD") : QStringLiteral("BAD"),
                          fileNameOf(status.lastPath), fromUtf8(scoreText(status.lastScore)));
    }
    if (status.checked > 0) {
        QString counts =
            QStringLiteral("Checked %1, moved %2").arg(status.checked).arg(status.moved);
        if (status.moveFailures > 0) {
            counts += QStringLiteral(", %1 %2 failed")
                          .arg(status.moveFailures)
                          .arg(status.moveFailures == 1 ? QStringLiteral("move")
                                                        : QStringLiteral("moves"));
        }
        lines << counts;
    }
    return lines.join(QLatin1Char('\n'));
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
    // The group belongs to the menu, its parent, which the analyzer does not follow.
    threshold->setMenu(m_thresholdMenu); // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)

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
    m_tip = trayTip(m_title);
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        m_tray = new QSystemTrayIcon(programIcon(), this);
        m_tray->setProperty("kitId", kTrayIconId);
        m_tray->setToolTip(m_tip);
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
    std::string profileError;
    m_job->setSettings(loadWatchServiceSettings(settingsPath(), &profileError));
    if (!profileError.empty()) {
        m_log.writeNow("Profile not used: " + profileError);
    }

    connect(&m_timer, &QTimer::timeout, this, &WatchJobWindow::followJob);
    m_timer.start(1000);
}

void WatchJobWindow::followJob()
{
    const WatchJobStatus status = m_job->status();
    const WatchJobSettings settings = m_job->settings();
    const QString tip = trayTip(m_title) + QLatin1Char('\n') +
                        watchStateText(status, settings.enabled, settings.sourceFolder);
    if (tip != m_tip) {
        m_tip = tip;
        if (m_tray != nullptr) {
            m_tray->setToolTip(m_tip);
        }
    }

    // A new run of the worker counts from 0 again.
    m_badSeen = std::min(m_badSeen, status.badResults);
    if (status.badResults == m_badSeen) {
        return;
    }
    const std::uint64_t fresh = status.badResults - m_badSeen;
    m_badSeen = status.badResults;
    // The newest BAD clip is named when it is the newest result; the daily log names all.
    const QString newest =
        status.lastGood
            ? QStringLiteral("See the daily log in %1").arg(QFile::decodeName(logsFolder().c_str()))
            : fromUtf8(scoreText(status.lastScore)) + QLatin1Char(' ') +
                  QFile::decodeName(QByteArray::fromStdString(status.lastPath));
    const QString title =
        fresh == 1 ? QStringLiteral("BAD clip") : QStringLiteral("%1 BAD clips").arg(fresh);
    emit badClipNotice(title, newest);
    if (m_tray != nullptr && QSystemTrayIcon::supportsMessages()) {
        m_tray->showMessage(title, newest, QSystemTrayIcon::Warning);
    }
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
        followJob();
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
