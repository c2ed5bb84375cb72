// The decoding step of XmlNode::Load (byte-order marks, UTF-16LE with surrogates, UTF-8,
// Windows-1252) on arbitrary file bytes, then the parse checks on the decoded text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tests/fuzz/xmlfuzzchecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string failure = tarvoqc::fuzz::checkLoad(bytes);
    if (!failure.empty()) {
        std::fprintf(stderr, "invariant broken: %s\n", failure.c_str());
        std::abort();
    }
    return 0;
}
