// Opens the input as the first extent file of a mapped block allocator, then collects the
// blocks it says are handed out, reads and writes their payloads, and takes and gives back
// blocks. The first byte picks the block size, the second the blocks per extent and
// whether the file is opened read-only; the rest is the file.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "tolven/mappedblockallocator.h"

using namespace TOLVEN;

namespace {
const std::string& Dir() {
    static const std::string dir = [] {
        const auto d = std::filesystem::temp_directory_path() /
                       ("tolven_mba_fuzz_" + std::to_string(::getpid()));
        std::filesystem::create_directories(d);
        return d.string();
    }();
    return dir;
}

void Check(bool ok) {
    if (!ok) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint64_t blockSize = 1 + data[0];
    const uint64_t blocks = 1 + (data[1] & 0x3F);
    const bool readOnly = (data[1] & 0x80) != 0;
    for (int n = 0; n < 3; ++n)
        std::filesystem::remove(Dir() + "/f." + std::to_string(n) + ".mba");
    std::FILE* f = std::fopen((Dir() + "/f.0.mba").c_str(), "wb");
    if (f == nullptr) return 0;
    if (size > 2) std::fwrite(data + 2, 1, size - 2, f);
    std::fclose(f);

    MappedBlockAllocator a;
    const unsigned long access =
        readOnly ? MappedBlockAllocator::kGenericRead
                 : MappedBlockAllocator::kGenericRead | MappedBlockAllocator::kGenericWrite;
    if (a.Init(0, access, blockSize, blocks, Dir().c_str(), "f", true) != mba_success) return 0;
    std::vector<char*> held;
    while (a.HasAllocatedBlocks()) {
        char* p = static_cast<char*>(a.GetAllocatedBlock());
        if (p == nullptr) break;
        Check(a.IsValid(p));
        volatile char sum = 0;
        for (uint64_t i = 0; i < blockSize; ++i)
            sum = sum + p[i];
        if (!readOnly) std::memset(p, 0xA5, blockSize);
        held.push_back(p);
    }
    Check(a.GetAllocatedBlock() == nullptr);
    if (!readOnly) {
        for (int i = 0; i < 3; ++i) {
            char* p = static_cast<char*>(a.GetBlock());
            Check(p != nullptr);
            std::memset(p, 0x5A, blockSize);
            held.push_back(p);
        }
        for (char* p : held)
            Check(a.ReleaseBlock(p) == mba_success);
        for (char* p : held)
            Check(a.ReleaseBlock(p) != mba_success);
    }
    Check(a.Term() == mba_success);
    return 0;
}
