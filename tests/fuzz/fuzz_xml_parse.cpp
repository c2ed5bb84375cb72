// XmlNode::Parse on arbitrary text, then the writer and reader on the tree it gives:
// a tree the writer can express exactly must come back from Save and Load unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tests/fuzz/xmlfuzzchecks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string failure = tarvoqc::fuzz::checkParse(text);
    if (!failure.empty()) {
        std::fprintf(stderr, "invariant broken: %s\n", failure.c_str());
        std::abort();
    }
    return 0;
}
