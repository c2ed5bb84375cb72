#pragma once

#include <vector>

#include "ui/versioncheck.h"

namespace tarvoqc {

// The five media libraries in the order they are checked, each with the version this
// program was compiled against and the one the loaded library reports.
std::vector<LibraryVersion> mediaLibraryVersions();

} // namespace tarvoqc
