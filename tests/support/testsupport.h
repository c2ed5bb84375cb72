#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvoqc::test {

// The folder of the clips made by tests/media/make_test_clips.sh.
std::filesystem::path testMediaDir();
// A generated clip by file name; the test fails (and skips) when it was not made, which
// happens only when the ffmpeg build lacks an encoder the clip needs.
std::filesystem::path testClip(std::string_view name);
// ../shared/media-samples beside the checkout (real clips made by others), or empty when
// it is not there.
std::filesystem::path sharedSamplesDir();

// A fresh folder under the system temp folder, removed with everything in it at the end.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::filesystem::path operator/(std::string_view name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

void writeFile(const std::filesystem::path& path, std::string_view bytes);
std::string readFile(const std::filesystem::path& path);

// UTF-16LE bytes of an ASCII text, and back: the low byte of each unit (the daily log's
// and the result documents' ASCII content).
std::string utf16(std::string_view ascii);
std::string asciiOfUtf16(std::string_view bytes);

// Runs argv[0] with the arguments (no shell), with optional extra environment entries
// "NAME=value"; gives its exit status (or -1 when it could not run) and its outputs.
struct CommandResult
{
    int status = -1;
    std::string out;
    std::string err;
};
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv = {});

// A program running beside the test (argv[0] found on PATH, standard input and error on
// /dev/null), which is killed if it is still running when the object goes.
class ChildProcess
{
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The exit status (128 + signal when killed) once it has ended within the time limit.
    std::optional<int> waitFor(std::chrono::milliseconds limit);
    void signal(int number);
    int pid() const { return m_pid; }

private:
    int m_pid = -1;
    std::optional<int> m_status;
};

// Runs body in a forked child process, which may change its own rights and limits freely,
// and gives the text body returned; nullopt when body gave up (returned nullopt). A child
// that ends any other way fails the test.
std::optional<std::string> runInChild(const std::function<std::optional<std::string>()>& body);
// Drops the calling process to user and group nobody: only for a child of runInChild.
bool dropToNobody();
// Runs body as nobody in a child when the tests run as root (root ignores permissions),
// else directly; nullopt when root could not drop its rights.
std::optional<std::string> runUnprivileged(const std::function<std::string()>& body);

// SHA-256 of a file by the system's sha256sum, upper-case hex; empty when unavailable.
std::string sha256sumOf(const std::filesystem::path& path);

} // namespace tarvoqc::test
