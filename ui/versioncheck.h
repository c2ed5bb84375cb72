#pragma once

#include <cstdint>
#include <string>
#include <vector>

class QWidget;

namespace tarvoqc {

// One media library as the version check sees it: versions are major * 65536 + minor *
// 256 + micro, as the libraries' own version functions give them.
struct LibraryVersion
{
    std::string name; // "avcodec", "avformat", "avutil", "swresample", "swscale"
    std::uint32_t required = 0;
    std::uint32_t actual = 0;
};

// "57.34.100" from a library version number.
std::string libraryVersionText(std::uint32_t version);

// The question asked when a library's version differs from the required one.
std::string libraryVersionQuestion(const LibraryVersion& library);

// Equal versions (all 32 bits) pass silently; any difference asks the user (caption
// "Error", warning icon, Yes and No, No the default) through the kit's message box. False
// only when the answer is No.
bool CheckLibraryVersion(QWidget* parent, const LibraryVersion& library);

// Checks the libraries in the given order; the first refusal ends the check with false and
// the later libraries are not asked about.
bool CheckMediaLibraries(QWidget* parent, const std::vector<LibraryVersion>& libraries);

} // namespace tarvoqc
