#pragma once

#include <filesystem>
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

// SHA-256 of a file by the system's sha256sum, upper-case hex; empty when unavailable.
std::string sha256sumOf(const std::filesystem::path& path);

} // namespace tarvoqc::test
