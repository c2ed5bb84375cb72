#include "results/dailylog.h"

#include <cstdio>

#include <fcntl.h>

#include "files/fileio.h"
#include "results/textcodec.h"
#include "tarvoqc/version.h"

namespace tarvoqc {

namespace {

bool localTime(std::time_t time, std::tm& parts)
{
    return ::localtime_r(&time, &parts) != nullptr;
}

std::string formatTime(const char* pattern, const std::tm& parts)
{
    char buffer[128];
    std::size_t length = std::strftime(buffer, sizeof buffer, pattern, &parts);
    return std::string(buffer, length);
}

} // namespace

std::string titleText()
{
    char buffer[160];
    int length = std::snprintf(buffer, sizeof buffer, "%s v%d.%d.%d build %03d",
                               std::string(kProductTitle).c_str(), kVersionMajor, kVersionMinor,
                               kVersionRelease, kVersionBuild);
    return length > 0 ? std::string(buffer) : std::string(kProductTitle);
}

void DailyLog::setFolder(std::string_view folder, std::string_view prefix)
{
    std::lock_guard lock(m_mutex);
    m_folder = folder;
    if (!m_folder.empty() && m_folder.back() != '/' && m_folder.back() != '\\') {
        m_folder += '/';
    }
    m_prefix = prefix;
}

void DailyLog::setEnabled(std::int32_t flag)
{
    std::lock_guard lock(m_mutex);
    m_enabled = flag;
}

int DailyLog::write(std::string_view text, std::time_t time, bool stamped)
{
    std::lock_guard lock(m_mutex);
    if (m_enabled == 0) {
        return 0;
    }
    std::tm parts{};
    if (!localTime(time, parts)) {
        // A time outside the calendar names no file; the last path is no longer this
        // entry's file either.
        m_path.clear();
        return 0;
    }
    m_path = m_folder + m_prefix + formatTime("%Y-%m-%d.log", parts);
    if (text.empty()) {
        return 0;
    }
    if (!stamped) {
        return appendLocked(text);
    }
    std::string line = formatTime("\r\n%d-%m-%Y %H:%M:%S\t", parts);
    line += text;
    return appendLocked(line);
}

int DailyLog::writeNow(std::string_view text, bool stamped)
{
    return write(text, std::time(nullptr), stamped);
}

int DailyLog::appendRaw(std::string_view text)
{
    std::lock_guard lock(m_mutex);
    return appendLocked(text);
}

int DailyLog::appendLocked(std::string_view text)
{
    if (m_enabled == 0 || m_path.empty() || text.empty()) {
        return 0;
    }
    // Non-blocking only so that a FIFO in the file's place cannot hold the writer up.
    const FileHandle file =
        openFile(m_path, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_NONBLOCK, 0666);
    if (!file.valid()) {
        return 1;
    }
    const std::string bytes = utf8ToUtf16le(text);
    writeFull(file.get(), bytes.data(), bytes.size());
    return 1;
}

std::int32_t DailyLog::enabled() const
{
    std::lock_guard lock(m_mutex);
    return m_enabled;
}

std::string DailyLog::folder() const
{
    std::lock_guard lock(m_mutex);
    return m_folder;
}

std::string DailyLog::prefix() const
{
    std::lock_guard lock(m_mutex);
    return m_prefix;
}

std::string DailyLog::path() const
{
    std::lock_guard lock(m_mutex);
    return m_path;
}

} // namespace tarvoqc
