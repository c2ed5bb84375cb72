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
bool queryFileInfo(const std::string& path, FileInfo& info);
// The same facts of an open file (no name, so never the hidden bit).
bool queryFileInfo(int fd, FileInfo& info);

// Opens path for reading when it names a regular file (links followed); -1 otherwise. The
// open does not wait for a FIFO's writer or a device, so a clip that is none of ours is
// refused at once; the handle then blocks on reads as usual.
int openRegularFile(const std::string& path);

// A file counts as write-locked while another program has it open for writing: a read
// lease cannot be taken on it. Where a lease cannot be tried at all (no permission, file
// systems without leases) the file counts as not locked. The lease is given back at once,
// so a writer is never held up by the probe.
bool isWriteLocked(int fd);

} // namespace tarvoqc
