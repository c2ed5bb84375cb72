#include "tests/support/testsupport.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <grp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

extern char** environ;

namespace tarvoqc::test {

namespace fs = std::filesystem;

namespace {

// Checks run in the worker program of this build tree (the test programs do not live
// beside it); a worker named by the caller's environment stays.
[[maybe_unused]] const bool g_workerChosen = ::setenv("TARVOQC_WORKER", TARVOQC_WORKER_EXE, 0) == 0;

} // namespace

fs::path testMediaDir()
{
    return TARVOQC_TEST_MEDIA_DIR;
}

fs::path testClip(std::string_view name)
{
    fs::path path = testMediaDir() / name;
    if (!fs::exists(path)) {
        ADD_FAILURE() << "test clip not made: " << path;
    }
    return path;
}

fs::path sharedSamplesDir()
{
    fs::path dir = TARVOQC_SHARED_SAMPLES_DIR;
    std::error_code ec;
    return fs::is_directory(dir, ec) ? fs::canonical(dir, ec) : fs::path{};
}

TempDir::TempDir()
{
    std::string pattern = (fs::temp_directory_path() / "tarvoqc-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    // Tests may leave read-only folders behind; make them writable again to remove them.
    for (auto it = fs::recursive_directory_iterator(m_path, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(m_path, ec);
}

void writeFile(const fs::path& path, std::string_view bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

std::string readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string utf16(std::string_view ascii)
{
    std::string out;
    for (const char c : ascii) {
        out += c;
        out += '\0';
    }
    return out;
}

std::string asciiOfUtf16(std::string_view bytes)
{
    std::string text;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        text += bytes[i];
    }
    return text;
}

namespace {

// The null-terminated pointer array the spawn calls take; the strings stay owned by texts.
std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv)
{
    // The outputs go to files rather than pipes, so a chatty child can never block.
    CommandResult result;
    const TempDir outputs;
    const fs::path out = outputs / "out";
    const fs::path err = outputs / "err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);

    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        env.emplace_back(*e);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> envp = pointersTo(env);
    std::vector<std::string> args = argv;
    std::vector<char*> argp = pointersTo(args);

    pid_t pid = 0;
    const int rc = ::posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        return result;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = readFile(out);
    result.err = readFile(err);
    return result;
}

std::string sha256sumOf(const fs::path& path)
{
    const CommandResult r = runCommand({"sha256sum", "-b", path.string()});
    if (r.status != 0 || r.out.size() < 64) {
        return {};
    }
    std::string hex = r.out.substr(0, 64);
    std::transform(hex.begin(), hex.end(), hex.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return hex;
}

std::optional<std::string> runInChild(const std::function<std::optional<std::string>()>& body)
{
    constexpr int kGaveUp = 3;
    int fds[2];
    if (::pipe(fds) != 0) {
        ADD_FAILURE() << "pipe";
        return std::nullopt;
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(fds[0]);
        const std::optional<std::string> text = body();
        if (!text) {
            ::_exit(kGaveUp);
        }
        const bool written =
            ::write(fds[1], text->data(), text->size()) == static_cast<ssize_t>(text->size());
        ::_exit(written ? 0 : 4);
    }
    ::close(fds[1]);
    if (child < 0) {
        ::close(fds[0]);
        ADD_FAILURE() << "fork";
        return std::nullopt;
    }
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kGaveUp) {
        return std::nullopt;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return text;
}

bool dropToNobody()
{
    constexpr uid_t kNobody = 65534;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(kNobody, kNobody, kNobody) == 0 &&
           ::setresuid(kNobody, kNobody, kNobody) == 0;
}

std::optional<std::string> runUnprivileged(const std::function<std::string()>& body)
{
    if (::geteuid() != 0) {
        return body();
    }
    return runInChild([&]() -> std::optional<std::string> {
        if (!dropToNobody()) {
            return std::nullopt;
        }
        return body();
    });
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv)
{
    std::vector<std::string> args = argv;
    std::vector<char*> argp = pointersTo(args);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (::posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), environ) == 0) {
        m_pid = pid;
    }
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess()
{
    if (m_pid > 0 && !m_status) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
}

std::optional<int> ChildProcess::waitFor(std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!m_status && m_pid > 0) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        } else if (std::chrono::steady_clock::now() >= end) {
            break;
        } else {
            ::usleep(20000);
        }
    }
    return m_status;
}

void ChildProcess::signal(int number)
{
    if (m_pid > 0 && !m_status) {
        ::kill(m_pid, number);
    }
}

} // namespace tarvoqc::test
