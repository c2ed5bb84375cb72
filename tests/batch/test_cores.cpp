#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <sched.h>

#include <gtest/gtest.h>

#include "batch/cores.h"
#include "tests/support/testsupport.h"

namespace tarvoqc {
namespace {

TEST(Cores, QuotaOfACgroup)
{
    const std::pair<std::string_view, std::optional<unsigned>> cases[] = {
        {"max 100000", std::nullopt},
        {"200000 100000", 2U},
        {"150000 100000\n", 2U},
        {"50000 100000", 1U},
        {"100000 100000", 1U},
        {"", std::nullopt},
        {"-1 100000", std::nullopt},
        {"100000 0", std::nullopt},
        {"12x 100000", std::nullopt},
        {"400000", std::nullopt},
        {"9223372036854775807 1", 65536U}, // absurd quotas are capped, never overflow
    };
    for (const auto& [text, cores] : cases) {
        EXPECT_EQ(cpuQuotaCores(text), cores) << text;
    }
}

// A process confined to one CPU (taskset, a batch system's allocation) counts one core,
// whatever the machine has.
TEST(Cores, FollowTheAffinityMask)
{
    EXPECT_GE(usableCores(), 1U);
    const auto confined = test::runInChild([]() -> std::optional<std::string> {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(0, &one);
        if (::sched_setaffinity(0, sizeof one, &one) != 0) {
            return std::nullopt;
        }
        return std::to_string(usableCores());
    });
    if (!confined) {
        GTEST_SKIP() << "CPU 0 is not ours to run on";
    }
    EXPECT_EQ(*confined, "1");
}

} // namespace
} // namespace tarvoqc
