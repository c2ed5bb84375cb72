#include "batch/cores.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <sched.h>

namespace tarvoqc {

namespace {

std::optional<long long> number(std::string_view text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    long long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::string firstLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::optional<unsigned> quotaCores(long long quota, long long period)
{
    if (quota <= 0 || period <= 0) {
        return std::nullopt;
    }
    const long long cores = quota / period + (quota % period != 0 ? 1 : 0);
    return static_cast<unsigned>(std::clamp<long long>(cores, 1, 1 << 16));
}

// The quota of the process's own control group: cgroup v2 (the "0::" line of
// /proc/self/cgroup) or v1 (the "cpu" controller's line). A group's parents may set a
// quota too; the service managers and container runtimes that set one put it on the
// process's own group, which is the one read.
std::optional<unsigned> ownCgroupQuota()
{
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);) {
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::string group = line.substr(second + 1);
        if (line.compare(0, first, "0") == 0 && controllers.empty()) {
            if (auto cores = cpuQuotaCores(firstLine("/sys/fs/cgroup" + group + "/cpu.max"))) {
                return cores;
            }
            continue;
        }
        std::istringstream names(controllers);
        for (std::string name; std::getline(names, name, ',');) {
            if (name == "cpu") {
                for (const std::string& root : {std::string("/sys/fs/cgroup/cpu"),
                                                std::string("/sys/fs/cgroup/cpu,cpuacct")}) {
                    const auto quota = number(firstLine(root + group + "/cpu.cfs_quota_us"));
                    const auto period = number(firstLine(root + group + "/cpu.cfs_period_us"));
                    if (quota && period) {
                        return quotaCores(*quota, *period);
                    }
                }
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::optional<unsigned> cpuQuotaCores(std::string_view cpuMax)
{
    const std::size_t blank = cpuMax.find(' ');
    if (blank == std::string_view::npos) {
        return std::nullopt;
    }
    const auto quota = number(cpuMax.substr(0, blank));
    const auto period = number(cpuMax.substr(blank + 1));
    if (!quota || !period) {
        return std::nullopt; // "max": no quota
    }
    return quotaCores(*quota, *period);
}

unsigned usableCores()
{
    unsigned cores = 0;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof set, &set) == 0) {
        cores = static_cast<unsigned>(CPU_COUNT(&set));
    }
    if (cores == 0) {
        cores = std::thread::hardware_concurrency();
    }
    if (const auto quota = ownCgroupQuota()) {
        cores = cores == 0 ? *quota : std::min(cores, *quota);
    }
    return std::max(cores, 1U);
}

} // namespace tarvoqc
