#pragma once

#include <QIcon>
#include <string_view>

namespace tarvoqc {

// The legal-notice line of the About box.
inline constexpr std::string_view kLegalNotice = "Copyright (C) 2026 the TarvoQC developers";

// The program's icon, drawn in code at 16, 32, 48, 64 and 256 pixels: a monitor with a
// green check mark. packaging/tarvoqc.svg is the same picture for the desktop.
QIcon programIcon();

} // namespace tarvoqc
