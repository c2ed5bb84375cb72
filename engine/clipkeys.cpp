#include "engine/clipkeys.h"

#include <algorithm>

namespace tarvoqc {

std::string makeHash256(const FileDigest& digest)
{
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * digest.size());
    for (std::uint8_t byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

std::uint64_t makeFKey(const FileDigest& digest)
{
    std::array<std::uint8_t, kKeyDigestBufferBytes> buffer = {};
    std::copy(digest.begin(), digest.end(), buffer.begin());

    Sha2Context context;
    Sha2Init(256, context);
    Sha2Update(buffer.data(), kFKeyHashedBytes, context);
    Sha2Update(kFKeySalt, kFKeySaltBytes, context);
    Sha2Final(buffer.data(), context);

    std::uint64_t key = 0;
    for (int i = 7; i >= 0; --i) {
        key = (key << 8) | buffer[static_cast<std::size_t>(i)];
    }
    return key;
}

} // namespace tarvoqc
