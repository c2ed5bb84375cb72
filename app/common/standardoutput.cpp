#include "app/common/standardoutput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace tarvoqc {

namespace {

// A list of paths larger than this is no list (a device such as /dev/zero, say).
constexpr std::size_t kMaxPathListBytes = std::size_t{256} << 20;

int g_firstError = 0; // errno of the first failed write; 0 while all went through

// The text of an errno value (the thread-safe form of strerror; GNU's returns the text).
std::string errorText(int number)
{
    char buffer[256];
    return ::strerror_r(number, buffer, sizeof buffer);
}

void noteError()
{
    if (g_firstError == 0) {
        g_firstError = errno != 0 ? errno : EIO;
    }
}

} // namespace

bool writeStandardOutput(std::string_view text)
{
    if (g_firstError != 0) {
        return false;
    }
    errno = 0;
    if (!text.empty() && std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        noteError();
        return false;
    }
    return true;
}

bool flushStandardOutput()
{
    errno = 0;
    if (g_firstError == 0 && std::fflush(stdout) != 0) {
        noteError();
    }
    return g_firstError == 0;
}

bool standardOutputWritten()
{
    return g_firstError == 0;
}

bool closeStandardOutput(std::string_view program)
{
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        noteError();
    }
    errno = 0;
    if (std::fclose(stdout) != 0) {
        noteError();
    }
    if (g_firstError == 0) {
        return true;
    }
    std::fprintf(stderr, "%.*s: cannot write standard output: %s\n",
                 static_cast<int>(program.size()), program.data(), errorText(g_firstError).c_str());
    return false;
}

bool readPathList(const std::string& name, bool nulSeparated, std::vector<std::string>& paths,
                  std::string& why)
{
    const bool standardInput = name == "-";
    const int fd = standardInput ? STDIN_FILENO : ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = errorText(errno);
        return false;
    }
    std::string text;
    std::vector<char> buffer(1 << 16);
    bool ok = true;
    for (;;) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            why = errorText(errno);
            ok = false;
            break;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(got));
        if (text.size() > kMaxPathListBytes) {
            why = "it is larger than 256 MiB";
            ok = false;
            break;
        }
    }
    if (!standardInput) {
        ::close(fd);
    }
    if (!ok) {
        return false;
    }
    const char separator = nulSeparated ? '\0' : '\n';
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end > start) {
            paths.emplace_back(text, start, end - start);
        }
        start = end + 1;
    }
    return true;
}

} // namespace tarvoqc
