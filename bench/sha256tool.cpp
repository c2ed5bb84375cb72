// tarvoqc-sha256 [--portable] FILE...
// Prints the SHA-256 of each file the way sha256sum does, read and hashed by the engine's
// own hash reader (64 KiB pieces). --portable keeps to the portable SHA-256 even where the
// CPU has the SHA extensions.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "engine/hashreader.h"
#include "engine/sha2blocks.h"

int main(int argc, char** argv)
{
    using tarvoqc::HashReader;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--portable") {
            tarvoqc::sha2::setSha256Path(tarvoqc::sha2::Sha256Path::Portable);
        } else if (arg == "-h" || arg == "--help") {
            std::printf("usage: %s [--portable] FILE...\n", argv[0]);
            return 0;
        } else {
            paths.push_back(arg);
        }
    }
    if (paths.empty()) {
        std::fprintf(stderr, "usage: %s [--portable] FILE...\n", argv[0]);
        return 2;
    }
    int status = 0;
    for (const std::string& path : paths) {
        auto reader = HashReader::open(path, HashReader::Mode::Inline);
        if (reader == nullptr) {
            std::fprintf(stderr, "%s: %s: %s\n", argv[0], path.c_str(), std::strerror(errno));
            status = 1;
            continue;
        }
        const tarvoqc::FileDigest digest = reader->finish();
        if (reader->bytesHashed() != reader->fileSize()) {
            std::fprintf(stderr, "%s: %s: read error after %llu bytes\n", argv[0], path.c_str(),
                         static_cast<unsigned long long>(reader->bytesHashed()));
            status = 1;
            continue;
        }
        for (std::uint8_t b : digest) {
            std::printf("%02x", b);
        }
        std::printf("  %s\n", path.c_str());
    }
    return status;
}
