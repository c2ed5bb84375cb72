#pragma once

#include <cstdint>
#include <string>

#include "batch/checkprotocol.h"

namespace tarvoqc {

// The check worker process: the program tarvoqc-worker serves the check requests of one
// parent program over a stream socket, one clip after another, with a ClipChecker of its
// own. The media libraries are large C code fed with hostile files; in a process of their
// own, a crash, a runaway allocation or a stuck call costs one clip, never the window, a
// folder run or the watch service (batch/workerprocess.h is the parent's side).

// How a worker limits itself before it serves the first request.
struct WorkerConfig
{
    // The most memory the worker may map for data (RLIMIT_DATA), in bytes; 0 for none.
    // Sanitizer builds map terabytes of shadow memory and run without it.
    std::uint64_t memoryLimitBytes = 0;
    // The worker's priority (kThreadPriority... of batch/workerthread.h); the decoder
    // threads the libraries start inherit it.
    int priority = 0;
};

// Exit statuses of a worker that ends on its own.
inline constexpr int kWorkerExitNormal = 0;       // the parent closed the socket
inline constexpr int kWorkerExitUsage = 64;       // bad command line
inline constexpr int kWorkerExitOutOfMemory = 65; // an allocation failed under the limit
inline constexpr int kWorkerExitProtocol = 66;    // the parent sent something unreadable

// Restricts the calling process for the rest of its life, each step where the kernel
// allows it without privileges: the memory limit, no core files (a crash must not drop
// gigabytes into a clip folder), no new privileges, and a system-call filter that refuses
// what checking a clip never needs (sockets, new processes, exec, tracing other
// processes) with EPERM. Returns what is in force. Call it once, before other threads
// start.
WorkerReady restrictWorker(const WorkerConfig& config);

// For a process that only takes pictures from a clip (the report's picture reader, the
// window's picture): restricted as a check's worker with the default memory limit, the
// media libraries' own messages silenced.
void restrictPictureReader();

// Serves requests on fd until the program (process parent) closes its end; returns the
// process's exit status (kWorkerExit...). Sends Ready first, then for each Check request:
// once it has run for about 50 ms Opened (what the check knows by then) and Progress (at
// most every 50 ms, only when something moved), and Done at the end. kWorkerStopSignal
// sent to the worker's main thread ends the running check at its next packet, as the stop
// flag does in the program's own process; a stop that arrives between checks is dropped
// when the next request is read. A worker whose program has gone ends at once, also in
// the middle of a check.
int serveCheckRequests(int fd, const WorkerReady& ready, pid_t parent);

// The signal that stops the running check (see serveCheckRequests).
inline constexpr int kWorkerStopSignal = 10; // SIGUSR1

// Test-only fault seam: the environment variable TARVOQC_WORKER_FAULT holds rules
// "kind:marker[,kind:marker...]"; a request whose path contains a marker meets its fault
// instead of a check: "segv" (a null write), "abort" (abort()), "hang" (blocks for ever in
// a system call), "memory" (allocates until the memory limit stops it), "exit" (leaves
// with status 3 mid-check). Nothing but the tests sets it.
inline constexpr const char* kWorkerFaultVariable = "TARVOQC_WORKER_FAULT";

} // namespace tarvoqc
