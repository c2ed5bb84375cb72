#pragma once

#include <QRect>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QWidget;

namespace tarvoqc {

class ProfileStore;

// A window's placement as kept in section "WindowsSize", one key per placement name:
// "640, 480" (size), "100, 80, 640, 480" (position and size), and either with "-1, " in
// front for a window that was maximised. The rectangle is always the normal (restored)
// one, so a maximised window comes back to its old size when restored. Text from "G:" on
// is ignored when reading.
struct Placement
{
    bool maximised = false;
    bool hasPosition = false;
    QRect normal; // x, y meaningful only with hasPosition
};

// "w, h", "x, y, w, h", with "-1, " in front when maximised.
std::string placementText(const Placement& placement);
// The numbers of a value, split at the commas; the "G:" suffix dropped.
std::vector<int> placementNumbers(std::string_view value);

// Saves the window's placement under name in the store: its normal rectangle, "-1, " when
// maximised (a minimised window counts as normal). Nothing for an empty name or a null
// store.
void saveWindowPlacement(const QWidget& window, std::string_view name, bool keepPosition,
                         ProfileStore* store);

// Restores a saved placement; a missing key (or a null store) leaves the window as it is.
//  - w, h (2 or 3 numbers): the size; then, unless the window is maximised or minimised,
//    centred over the application's visible main window, else over the screen, x and y
//    raised to 0 when negative.
//  - 4 or more numbers: position and size as saved.
//  - -1 first: size (3 or 4 numbers) or position and size (5 or more), then maximised,
//    keeping that rectangle as the one it returns to.
// mainWindow: the window to centre over (null or hidden: the screen).
void restoreWindowPlacement(QWidget& window, std::string_view name, ProfileStore* store,
                            const QWidget* mainWindow);

// The placement manager: windows registered by name get their placement restored at once
// and saved when they are closed or destroyed.
class PlacementManager
{
public:
    // Restores now; saves when the window closes. The window must be a top-level widget.
    static void Register(QWidget& window, const std::string& name, bool keepPosition);
};

} // namespace tarvoqc
