#include "results/dailylog.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "tarvoqc/version.h"

namespace tarvoqc {

namespace {

void putUnit(std::string& out, std::uint32_t unit)
{
    out += static_cast<char>(unit & 0xFF);
    out += static_cast<char>((unit >> 8) & 0xFF);
}

// UTF-8 to UTF-16LE bytes. Anything that is not well-formed UTF-8 (a stray continuation
// byte, a cut sequence, an over-long form, an encoded surrogate, a value past U+10FFFF)
// becomes one U+FFFD per byte, so no input can stop an entry from being written.
std::string toUtf16Le(std::string_view text)
{
    std::string out;
    out.reserve(text.size() * 2);
    std::size_t i = 0;
    while (i < text.size()) {
        auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
        unsigned char lead = byte(i);
        std::size_t length = 0;
        std::uint32_t code = 0;
        std::uint32_t minimum = 0;
        if (lead < 0x80) {
            length = 1;
            code = lead;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            code = lead & 0x1F;
            minimum = 0x80;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            code = lead & 0x0F;
            minimum = 0x800;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            code = lead & 0x07;
            minimum = 0x10000;
        }
        bool ok = length > 0 && i + length <= text.size();
        for (std::size_t k = 1; ok && k < length; ++k) {
            if ((byte(i + k) & 0xC0) != 0x80) {
                ok = false;
            } else {
                code = (code << 6) | (byte(i + k) & 0x3F);
            }
        }
        ok = ok && code >= minimum && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
        if (!ok) {
            putUnit(out, 0xFFFD);
            ++i;
            continue;
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            putUnit(out, 0xD800 | (code >> 10));
            putUnit(out, 0xDC00 | (code & 0x3FF));
        } else {
            putUnit(out, code);
        }
        i += length;
    }
    return out;
}

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
    int fd = ::open(m_path.c_str(),
                    O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666);
    if (fd < 0) {
        return 1;
    }
    std::string bytes = toUtf16Le(text);
    std::string_view rest = bytes;
    while (!rest.empty()) {
        ssize_t done = ::write(fd, rest.data(), rest.size());
        if (done < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        rest.remove_prefix(static_cast<std::size_t>(done));
    }
    ::close(fd);
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
