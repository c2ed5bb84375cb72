#include "engine/enginetrace.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "engine/ffmpeg.h"
#include "engine/medialog.h"
#include "results/qcissue.h"

namespace tarvoqc {

bool engineTraceEnabled()
{
    static const bool enabled = [] {
        const char* value = std::getenv("TARVOQC_TRACE");
        return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
    }();
    return enabled;
}

void EngineTrace(int level, const char* format, ...)
{
    (void)level;
    if (!engineTraceEnabled()) {
        return;
    }
    char buffer[4 * kMaxIssueTextChars];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::string line("QCIn");
    line += cutUtf8(buffer, kMaxIssueTextChars - 4);
    EngineTraceRaw(level, line.c_str());
}

void EngineTraceRaw(int level, const char* text)
{
    (void)level;
    if (engineTraceEnabled()) {
        // One write per line, so lines of several threads never interleave.
        std::fputs(text, stderr);
    }
}

} // namespace tarvoqc

namespace tarvoqc {

namespace {

// The media libraries' own messages: the error-level ones of a clip's demuxer and decoders
// go to its MediaLog (level 4 turns them into issues), and all of them join the trace,
// silent by default, on standard error with the trace lines when tracing is on, never mixed
// into the checker's output.
void mediaLibraryLog(void* context, int level, const char* format, va_list args)
{
    {
        va_list copy;
        va_copy(copy, args);
        recordMediaLibraryMessage(context, level, format, copy);
        va_end(copy);
    }
    if (!engineTraceEnabled() || level > AV_LOG_INFO) {
        return;
    }
    char line[1024];
    int prefix = 1;
    av_log_format_line2(context, level, format, args, line, sizeof line, &prefix);
    EngineTrace(kTraceNormal, "..lib %s", line);
}

} // namespace

void installMediaLibraryLog()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(&mediaLibraryLog); });
}

} // namespace tarvoqc
