#pragma once

#include <optional>
#include <string_view>

namespace tarvoqc {

// The number of processors this process may actually use: the CPUs of its affinity mask
// (taskset, a batch system's allocation), lowered by the CPU quota of its control group
// (a container's or a service's CPUQuota=, cgroup v2 "cpu.max" or v1 "cpu.cfs_quota_us"),
// rounded up. At least 1. `--jobs 0` and the decoder threads of the command-line checker
// follow it, so a checker confined to two CPUs runs two checks, not one per core of the
// machine.
unsigned usableCores();

// The quota of a cgroup v2 "cpu.max" text ("max 100000" or "150000 100000") in CPUs,
// rounded up; nothing when there is no quota or the text is not one.
std::optional<unsigned> cpuQuotaCores(std::string_view cpuMax);

} // namespace tarvoqc
