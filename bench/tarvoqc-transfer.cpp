// Runs one SafeTransfer and prints how long it took, for bench/transfer.sh.
//   tarvoqc-transfer [--verify] SOURCE DESTINATION
// Prints "seconds <s>" and exits 0 on success; prints the result code and error text to
// standard error and exits 1 otherwise.

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "batch/safetransfer.h"

int main(int argc, char** argv)
{
    std::uint32_t flags = 0;
    int arg = 1;
    if (arg < argc && std::strcmp(argv[arg], "--verify") == 0) {
        flags |= tarvoqc::TransferVerify;
        ++arg;
    }
    if (argc - arg != 2) {
        std::fprintf(stderr, "usage: %s [--verify] SOURCE DESTINATION\n", argv[0]);
        return 2;
    }
    tarvoqc::TransferProgress progress;
    const auto start = std::chrono::steady_clock::now();
    const std::int32_t rc = tarvoqc::SafeTransfer(argv[arg + 1], argv[arg], flags, &progress);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (rc != 0) {
        std::fprintf(stderr, "SafeTransfer: %d %s\n", rc, progress.error().c_str());
        return 1;
    }
    std::printf("seconds %.3f\n", elapsed.count());
    return 0;
}
