#include "ui/windowplacement.h"

#include <QEvent>
#include <QGuiApplication>
#include <QPointer>
#include <QScreen>
#include <QWidget>

#include "settings/profilestore.h"
#include "ui/controlkit.h"

namespace tarvoqc {

namespace {

// More numbers than any value form uses; the rest of a longer value is ignored.
constexpr std::size_t kMaxPlacementNumbers = 8;

QRect centredOn(const QRect& area, const QSize& size)
{
    // Truncating divisions, so that a placement saved before lands on the same pixel;
    // never left of or above 0.
    const int x = (area.left() + area.left() + area.width()) / 2 - size.width() / 2;
    const int y = (area.top() + area.top() + area.height()) / 2 - size.height() / 2;
    return {std::max(0, x), std::max(0, y), size.width(), size.height()};
}

// Saves a registered window when it is closed or destroyed; the saving happens at the
// close, while the window still has its geometry.
class PlacementSaver : public QObject
{
public:
    PlacementSaver(QWidget& window, std::string name, bool keepPosition)
        : QObject(&window), m_window(&window), m_name(std::move(name)), m_keepPosition(keepPosition)
    {
        window.installEventFilter(this);
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (watched == m_window && event->type() == QEvent::Close) {
            saveWindowPlacement(*m_window, m_name, m_keepPosition, kitSettings());
        }
        return false;
    }

private:
    QPointer<QWidget> m_window;
    std::string m_name;
    bool m_keepPosition;
};

} // namespace

std::string placementText(const Placement& placement)
{
    std::string text = placement.maximised ? "-1, " : "";
    const QRect& r = placement.normal;
    if (placement.hasPosition) {
        text += std::to_string(r.x()) + ", " + std::to_string(r.y()) + ", ";
    }
    text += std::to_string(r.width()) + ", " + std::to_string(r.height());
    return text;
}

std::vector<int> placementNumbers(std::string_view value)
{
    if (const auto suffix = value.find("G:"); suffix != std::string_view::npos) {
        value = value.substr(0, suffix);
    }
    int numbers[kMaxPlacementNumbers] = {};
    const std::size_t count = scanProfileInts(value, numbers, kMaxPlacementNumbers);
    return {numbers, numbers + count};
}

void saveWindowPlacement(const QWidget& window, std::string_view name, bool keepPosition,
                         ProfileStore* store)
{
    if (name.empty() || store == nullptr) {
        return;
    }
    Placement placement;
    placement.maximised = window.isMaximized();
    placement.hasPosition = keepPosition;
    const bool notNormal = window.isMaximized() || window.isMinimized();
    placement.normal = notNormal ? window.normalGeometry() : window.geometry();
    if (!placement.normal.isValid()) {
        return; // the normal rectangle cannot be read
    }
    store->WriteString(kSectionWindowsSize, name, placementText(placement));
}

void restoreWindowPlacement(QWidget& window, std::string_view name, ProfileStore* store,
                            const QWidget* mainWindow)
{
    std::string value;
    if (name.empty() || store == nullptr || !store->ReadString(kSectionWindowsSize, name, value)) {
        return;
    }
    const std::vector<int> n = placementNumbers(value);
    if (n.empty()) {
        return;
    }
    if (n[0] != -1) {
        if (n.size() >= 4) {
            window.setGeometry(n[0], n[1], n[2], n[3]);
        } else if (n.size() >= 2) {
            window.resize(n[0], n[1]);
            if (window.isMaximized() || window.isMinimized()) {
                return;
            }
            QRect area;
            if (mainWindow != nullptr && mainWindow != &window && mainWindow->isVisible()) {
                area = mainWindow->frameGeometry();
            } else if (const QScreen* screen = QGuiApplication::primaryScreen()) {
                area = screen->geometry();
            }
            window.move(centredOn(area, window.frameGeometry().size()).topLeft());
        }
        return;
    }
    if (n.size() >= 5) {
        window.setGeometry(n[1], n[2], n[3], n[4]);
    } else if (n.size() >= 3) {
        window.resize(n[1], n[2]);
    } else {
        return;
    }
    // A window not yet shown takes the state with it when it is shown; one already
    // visible is maximised now.
    window.setWindowState(window.windowState() | Qt::WindowMaximized);
}

void PlacementManager::Register(QWidget& window, const std::string& name, bool keepPosition)
{
    restoreWindowPlacement(window, name, kitSettings(), kitMainWindow());
    new PlacementSaver(window, name, keepPosition);
}

} // namespace tarvoqc
