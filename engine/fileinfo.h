#pragma once

#include <cstdint>
#include <string>

namespace tarvoqc {

// Windows-compatible attribute bits of a file.
inline constexpr std::uint32_t kAttrReadOnly = 0x01; // the owner may not write
inline constexpr std::uint32_t kAttrHidden = 0x02;   // the name begins with "."
inline constexpr std::uint32_t kAttrDirectory = 0x10;
inline constexpr std::uint32_t kAttrArchive = 0x20; // a regular file
inline constexpr std::uint32_t kAttrNormal = 0x80;  // no other bit set

// Windows file time: 100 ns units since 1601-01-01 UTC.
using FileTime = std::uint64_t;

struct FileInfo
{
    std::uint32_t attributes = 0;
    std::uint64_t size = 0;
    FileTime creationTime = 0;  // birth time where the file system records one, else ctime
    FileTime lastWriteTime = 0; // modification time
};

// Queries the facts of path (following links). False when the path cannot be queried.
// Blocking calls are abort points.
bool queryFileInfo(const std::string& path, FileInfo& info);

// A file counts as write-locked while another program has it open for writing: a read
// lease cannot be taken on it. Where a lease cannot be tried at all (no permission, file
// systems without leases) the file counts as not locked. The lease is given back at once,
// so a writer is never held up by the probe.
bool isWriteLocked(int fd);

} // namespace tarvoqc
