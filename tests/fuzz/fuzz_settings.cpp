// Arbitrary bytes as a settings file: every lookup, conversion and change must work without
// a crash, and a change must do what it says and nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/fuzz/settingsfuzzchecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string failure =
        tarvoqc::fuzz::checkSettings(std::string(reinterpret_cast<const char*>(data), size));
    if (!failure.empty()) {
        std::fprintf(stderr, "fuzz_settings: %s\n", failure.c_str());
        std::abort();
    }
    return 0;
}
