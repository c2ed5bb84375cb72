#pragma once

#include <atomic>
#include <cstdint>

namespace tarvoqc {

// Test-only fault seam of SafeTransfer, for error paths that a real file system cannot be
// made to take on demand. While it holds -8, -9, -30, -31 or -33, the operation behind that
// result code fails as if the system had refused it (the rename back of the probe, the
// open of the temp file, the copy buffer, the rewind of the copy or of the source before
// the verify). Nothing but tests sets it; 0 injects nothing. One value for the whole
// process: a test sets it in a child process of its own.
extern std::atomic<std::int32_t> g_safeTransferFault;

} // namespace tarvoqc
