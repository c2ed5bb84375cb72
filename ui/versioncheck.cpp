#include "ui/versioncheck.h"

#include <cstdio>

#include "ui/controlkit.h"

namespace tarvoqc {

std::string libraryVersionText(std::uint32_t version)
{
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u.%u", (version / 65536) % 256, (version / 256) % 256,
                  version % 256);
    return text;
}

std::string libraryVersionQuestion(const LibraryVersion& library)
{
    return "Your version of " + library.name + " (v" + libraryVersionText(library.actual) +
           ") is NOT the one required (v" + libraryVersionText(library.required) +
           ").\nPlease install the correct version or continue, but problems may happen.\nDo "
           "you want to continue?";
}

bool CheckLibraryVersion(QWidget* parent, const LibraryVersion& library)
{
    if (library.actual == library.required) {
        return true;
    }
    MessageBoxRequest box;
    box.caption = QStringLiteral("Error");
    box.text = QString::fromStdString(libraryVersionQuestion(library));
    box.icon = QMessageBox::Warning;
    box.buttons = QMessageBox::Yes | QMessageBox::No;
    box.defaultButton = QMessageBox::No;
    return kitMessageBox(parent, box) != QMessageBox::No;
}

bool CheckMediaLibraries(QWidget* parent, const std::vector<LibraryVersion>& libraries)
{
    for (const LibraryVersion& library : libraries) {
        if (!CheckLibraryVersion(parent, library)) {
            return false;
        }
    }
    return true;
}

} // namespace tarvoqc
