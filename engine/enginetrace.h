#pragma once

namespace tarvoqc {

// Trace levels of the engine's trace lines.
inline constexpr int kTraceNormal = 32;
inline constexpr int kTraceStreamInfo = 1;    // "Couldn't find stream information"
inline constexpr int kTraceInvalidPacket = 8; // "Invalid packet index"

// Writes one trace line, "QCIn" followed by the formatted message (which carries its own
// leading dots and newline), cut to 1024 characters. Trace lines are neither issues nor
// the daily log: they are silent unless the environment variable TARVOQC_TRACE is set to
// a non-zero value, and then go to standard error. Thread-safe.
void EngineTrace(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes text as it stands (it carries its own prefix), under the same rules.
void EngineTraceRaw(int level, const char* text);

// Whether trace lines are written; read once from the environment.
bool engineTraceEnabled();

// Sends the media libraries' log messages to the trace instead of standard error, and
// their error-level messages of watched contexts to their MediaLog (engine/medialog.h).
// The callback is process-wide: this is the only one the engine installs. Called by every
// ClipChecker; idempotent and thread-safe.
void installMediaLibraryLog();

} // namespace tarvoqc
