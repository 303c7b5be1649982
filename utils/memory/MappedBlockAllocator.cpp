#include "tolven/mappedblockallocator.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/mappedfile.h"
#include "platform/memory.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/logapi.h"
#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

constexpr uint64_t kHeaderBytes = 16;    // word size, stride
constexpr uint64_t kLinkOffset = 4;      // the list link behind the state
constexpr uint64_t kPayloadOffset = 12;  // the payload behind the link
constexpr uint32_t kHandedOut = 1;
constexpr uint64_t kWordSize = 8;
// Sizes beyond these could wrap the arithmetic of a file's layout.
constexpr uint64_t kLargestBlock = uint64_t{1} << 40;
constexpr uint64_t kLargestCount = uint64_t{1} << 32;

constexpr const char* kOpenContext = "TOLVEN::MappedBlockAllocator::OpenMappedMem";
constexpr const char* kFlushContext = "TOLVEN::MappedBlockAllocator::Flush";

// Block fields lie at 0 and 4 modulo 8: every access goes through memcpy.
uint32_t ReadState(const char* block) {
    uint32_t state;
    std::memcpy(&state, block, sizeof state);
    return state;
}
void WriteState(char* block, uint32_t state) {
    std::memcpy(block, &state, sizeof state);
}
char* ReadLink(const char* block) {
    char* node;
    std::memcpy(&node, block + kLinkOffset, sizeof node);
    return node != nullptr ? node - kLinkOffset : nullptr;
}
void WriteLink(char* block, char* next) {
    char* node = next != nullptr ? next + kLinkOffset : nullptr;
    std::memcpy(block + kLinkOffset, &node, sizeof node);
}
uint64_t ReadWord(const char* at) {
    uint64_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

}  // namespace

MappedBlockAllocator::MappedBlockAllocator()
    : initialized_(false),
      id_(BlockAllocatorStatMngr::GetNewInstanceId()),
      threadSafe_(true),
      pageSize_(0),
      blockSize_(0),
      stride_(0),
      blocksPerExtent_(0),
      extentBytes_(0),
      fileSize_(0),
      pageWaste_(0),
      freeBlocks_(0),
      extentCount_(0),
      desiredAccess_(kGenericRead | kGenericWrite),
      shareMode_(0),
      cs_(4000),
      firstAlignedOffset_(0),
      blocksBeforeAligned_(0),
      strideShift_(0),
      strideInverse_(0),
      strideLimit_(0),
      pageShift_(0),
      perPage_(0),
      allocatedList_(nullptr),
      allocatedCount_(0) {
    (void)BlockAllocatorStatMngr::Get().AddAllocator(this, nullptr);
}

MappedBlockAllocator::~MappedBlockAllocator() {
    BlockAllocatorStatMngr::Get().RemoveAllocator(this);
    (void)Term();
}

void MappedBlockAllocator::Lock() const {
    if (threadSafe_) detail::EnterHouse(cs_);
}

void MappedBlockAllocator::Unlock() const {
    if (threadSafe_) cs_.Leave();
}

mappedblocalloc_status MappedBlockAllocator::Init(unsigned long shareMode,
                                                  unsigned long desiredAccess, uint64_t blockSize,
                                                  uint64_t blocksPerExtent, const char* directory,
                                                  const char* name, bool threadSafe) {
    {
        HouseLockGuard guard(cs_);
        if (initialized_) return mba_success;
        shareMode_ = shareMode;
        desiredAccess_ = desiredAccess;
    }
    return Init(blockSize, blocksPerExtent, directory, name, threadSafe);
}

mappedblocalloc_status MappedBlockAllocator::Init(uint64_t blockSize, uint64_t blocksPerExtent,
                                                  const char* directory, const char* name,
                                                  bool threadSafe) {
    if (blockSize == 0 || blocksPerExtent == 0 || directory == nullptr || name == nullptr ||
        blockSize > kLargestBlock || blocksPerExtent > kLargestCount)
        return mba_invalid_parameter;
    HouseLockGuard guard(cs_);
    if (initialized_) return mba_success;

    // The directory without trailing blanks and separators, so the join has one separator.
    directory_.assign(directory, strnlen(directory, 1023));
    while (!directory_.empty() &&
           (directory_.back() == ' ' || directory_.back() == '\\' || directory_.back() == '/'))
        directory_.pop_back();
    name_ = name;
    threadSafe_ = threadSafe;

    platform::MemoryInfo info;
    platform::GetMemoryInfo(&info);
    pageSize_ = info.pageSize;
    blockSize_ = blockSize;
    stride_ = (blockSize + kPayloadOffset + 7) & ~uint64_t{7};
    blocksPerExtent_ = blocksPerExtent;
    extentBytes_ = stride_ * blocksPerExtent;
    pageWaste_ = 0;
    if (stride_ < pageSize_ && extentBytes_ % pageSize_ != 0) {
        const uint64_t pages = (extentBytes_ + pageSize_ - 1) / pageSize_;
        extentBytes_ = pages * pageSize_;
        const uint64_t perPage = pageSize_ / stride_;
        blocksPerExtent_ = perPage * pages;
        pageWaste_ = pageSize_ - stride_ * perPage;
        while (blocksPerExtent_ < blocksPerExtent) {
            extentBytes_ += pageSize_;
            blocksPerExtent_ += perPage;
        }
    }
    fileSize_ = extentBytes_ + kHeaderBytes;

    strideShift_ = static_cast<uint32_t>(__builtin_ctzll(stride_));
    const uint64_t odd = stride_ >> strideShift_;
    uint64_t inverse = odd;  // Newton's iteration doubles the correct low bits each round
    for (int i = 0; i < 5; ++i)
        inverse *= 2 - odd * inverse;
    strideInverse_ = inverse;
    strideLimit_ = UINT64_MAX / odd;
    pageShift_ = static_cast<uint32_t>(__builtin_ctzll(pageSize_));
    perPage_ = stride_ < pageSize_ ? pageSize_ / stride_ : 0;

    // Where the walk first skips to a page boundary; from there a page holds perPage blocks.
    blocksBeforeAligned_ = blocksPerExtent_;
    firstAlignedOffset_ = 0;
    if (pageWaste_ != 0) {
        uint64_t offset = kHeaderBytes;
        for (uint64_t k = 0; k < blocksPerExtent_; ++k) {
            const uint64_t next = Step(offset);
            if (next != offset + stride_) {
                blocksBeforeAligned_ = k + 1;
                firstAlignedOffset_ = next;
                break;
            }
            offset = next;
        }
    }
    extents_.reserve(10);

    const mappedblocalloc_status status = InitExtents();
    if (status == mba_success) initialized_ = true;
    return status;
}

uint64_t MappedBlockAllocator::Step(uint64_t offset) const {
    offset += stride_;
    if (pageWaste_ != 0 && (offset & (pageSize_ - 1)) == pageSize_ - pageWaste_)
        offset += pageWaste_;
    return offset;
}

bool MappedBlockAllocator::DivideByStride(uint64_t x, uint64_t* quotient) const {
    if ((x & ((uint64_t{1} << strideShift_) - 1)) != 0) return false;
    const uint64_t q = (x >> strideShift_) * strideInverse_;
    if (q > strideLimit_) return false;
    *quotient = q;
    return true;
}

bool MappedBlockAllocator::IsBlockStart(uint64_t offset) const {
    if (offset < kHeaderBytes) return false;
    uint64_t k = 0;
    if (firstAlignedOffset_ == 0 || offset < firstAlignedOffset_)
        return DivideByStride(offset - kHeaderBytes, &k) && k < blocksBeforeAligned_;
    const uint64_t from = offset - firstAlignedOffset_;
    if (!DivideByStride(from & (pageSize_ - 1), &k) || k >= perPage_) return false;
    return blocksBeforeAligned_ + (from >> pageShift_) * perPage_ + k < blocksPerExtent_;
}

mappedblocalloc_status MappedBlockAllocator::OpenMappedMem(Extent& extent, bool create) {
    char stem[256];
    char path[260];
    std::snprintf(stem, sizeof stem, "%s.%u", name_.c_str(), static_cast<unsigned>(extent.index));
    std::snprintf(path, sizeof path, "%s/%s.mba", directory_.c_str(), stem);
    const bool writable = Writable();

    uint64_t file = platform::OpenMapFile(path, writable, shareMode_, false);
    if (file == platform::kNoMapFile) {
        if (!create) return mba_no_file;
        file = platform::OpenMapFile(path, writable, shareMode_, true);
        if (file == platform::kNoMapFile) {
            TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                       "MappedBlockAllocator::OpenMappedMem - Error <%d> creating map file %s",
                       static_cast<int>(platform::LastMapFileError()), path);
            return mba_io_error;
        }
        uint64_t before = 0;
        if (!platform::GetMapFileSize(file, &before)) {
            TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                       "MappedBlockAllocator::OpenMappedMem - Unable to determine size of file %s ",
                       path);
            platform::CloseMapFile(file);
            return mba_io_error;
        }
        if (!platform::SetMapFileSize(file, fileSize_)) {
            if (writable)
                TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                           "MappedBlockAllocator::OpenMappedMem - Unable to extend file %s", path);
            platform::CloseMapFile(file);
            return mba_io_error;
        }
        // Zero pages from fileSize past the new end, as many as make fileSize bytes: the
        // shape every extent file has had, so files of all runs look alike. Only the first
        // fileSize bytes are ever mapped.
        std::unique_ptr<char[]> heap;
        char stack[8000];
        char* zeros = stack;
        if (pageSize_ > sizeof stack) {
            heap.reset(new char[pageSize_]);
            zeros = heap.get();
        }
        std::memset(zeros, 0, pageSize_);
        for (uint64_t written = before; written < fileSize_; written += pageSize_) {
            if (!platform::WriteMapFile(file, 2 * fileSize_ + (written - before), zeros,
                                        pageSize_)) {
                TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                           "MappedBlockAllocator::OpenMappedMem - Unable to write file %s", path);
                platform::CloseMapFile(file);
                return mba_io_error;
            }
        }
    } else if (writable) {
        // A file cut short (a creation that was interrupted) grows back: the lost part
        // reads as free blocks.
        uint64_t size = 0;
        if (platform::GetMapFileSize(file, &size) && size < fileSize_)
            (void)platform::SetMapFileSize(file, fileSize_);
    }

    int failedStep = 0;
    void* view = platform::MapFileView(file, fileSize_, writable, &extent.mapping, &failedStep);
    if (view == nullptr) {
        if (failedStep == 2)
            TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                       "MappedBlockAllocator::OpenMappedMem - MapViewOfFile failed file: %s", path);
        else if (writable)
            TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                       "MappedBlockAllocator::OpenMappedMem - CreateFileMapping failed file: %s",
                       path);
        platform::CloseMapFile(file);
        return mba_io_error;
    }
    char* base = static_cast<char*>(view);

    const uint64_t wordSize = ReadWord(base);
    if (wordSize == 0) {
        // Never initialised. The stride goes in first, so that a crash between the two
        // stores leaves a file that still reads as new.
        if (writable) {
            std::memcpy(base + 8, &stride_, sizeof stride_);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            std::memcpy(base, &kWordSize, sizeof kWordSize);
        }
    } else if (wordSize != kWordSize) {
        TOLVEN_LOG(LOGGER_NORMAL, "MappedBlockAllocator", kOpenContext,
                   "MappedBlockAllocator::OpenMappedMem - File created with word size %d system "
                   "size is %d",
                   static_cast<int>(wordSize), static_cast<int>(kWordSize));
        (void)platform::UnmapFileView(view, fileSize_, extent.mapping);
        platform::CloseMapFile(file);
        return mba_bad_file;
    } else if (ReadWord(base + 8) != stride_) {
        TOLVEN_LOG(LOGGER_ERROR, "MappedBlockAllocator", kOpenContext,
                   "MappedBlockAllocator::OpenMappedMem(): File \"%s\" created with block size "
                   "%" PRId64 ", expected size is %d.",
                   path, static_cast<int64_t>(ReadWord(base + 8)), static_cast<int>(stride_));
        (void)platform::UnmapFileView(view, fileSize_, extent.mapping);
        platform::CloseMapFile(file);
        return mba_bad_file;
    }

    extent.file = file;
    extent.view = base;
    extent.firstBlock = base + kHeaderBytes;
    extent.nextUnused = kHeaderBytes;
    return mba_success;
}

void MappedBlockAllocator::CloseExtent(Extent& extent) {
    if (extent.view != nullptr)
        (void)platform::UnmapFileView(extent.view, fileSize_, extent.mapping);
    platform::CloseMapFile(extent.file);
    extent = Extent();
}

mappedblocalloc_status MappedBlockAllocator::InitExtents() {
    const bool writable = Writable();
    for (uint64_t n = 0;; ++n) {
        Extent extent;
        extent.index = n;
        const mappedblocalloc_status status = OpenMappedMem(extent, false);
        if (status == mba_no_file) break;
        if (status != mba_success) {
            // Nothing stays open from a failed start: the files are free for the next try.
            for (Extent& open : extents_)
                CloseExtent(open);
            extents_.clear();
            freeBlocks_ = allocatedCount_ = extentCount_ = 0;
            allocatedList_ = nullptr;
            allocatedNodes_.clear();
            return status;
        }
        freeBlocks_ += blocksPerExtent_;
        extent.available = blocksPerExtent_;
        uint64_t offset = kHeaderBytes;
        for (uint64_t k = 0; k < blocksPerExtent_; ++k, offset = Step(offset)) {
            char* block = extent.view + offset;
            const bool handedOut = ReadState(block) == kHandedOut;
            if (writable) {
                if (handedOut) {
                    LinkAllocatedNode(block);
                    ++allocatedCount_;
                    --freeBlocks_;
                    --extent.available;
                } else {
                    LinkFreeSpaceNode(extent, block);
                }
            } else {
                if (handedOut) {
                    allocatedNodes_.push_back(reinterpret_cast<ListNode*>(block + kLinkOffset));
                    ++allocatedCount_;
                    --freeBlocks_;
                }
                --extent.available;
            }
        }
        extent.nextUnused = offset;
        extents_.push_back(extent);
        ++extentCount_;
    }
    if (extents_.empty()) {
        // A reader makes no files: there is nothing to read yet.
        if (!writable) return mba_io_error;
        Extent extent;
        extent.index = 0;
        const mappedblocalloc_status status = OpenMappedMem(extent, true);
        if (status != mba_success) return status;
        extent.available = blocksPerExtent_;
        freeBlocks_ += blocksPerExtent_;
        extents_.push_back(extent);
        ++extentCount_;
    }
    return mba_success;
}

void MappedBlockAllocator::LinkAllocatedNode(char* block) {
    WriteLink(block, allocatedList_);
    allocatedList_ = block;
}

void MappedBlockAllocator::LinkFreeSpaceNode(Extent& extent, char* block) {
    WriteLink(block, extent.freeList);
    extent.freeList = block;
    ++extent.freeCount;
}

char* MappedBlockAllocator::UnlinkFreeSpaceNode(Extent& extent) {
    char* block = extent.freeList;
    extent.freeList = ReadLink(block);
    WriteLink(block, nullptr);
    --extent.freeCount;
    return block;
}

mappedblocalloc_status MappedBlockAllocator::GetMemBlock(Extent& extent, char** block) {
    if (extent.nextUnused == 0 || extent.nextUnused + stride_ > fileSize_) {
        *block = nullptr;
        return mba_invalid_block;
    }
    *block = extent.view + extent.nextUnused;
    extent.nextUnused = Step(extent.nextUnused);
    --extent.available;
    return mba_success;
}

mappedblocalloc_status MappedBlockAllocator::AddExtent() {
    // A reader makes no files.
    if (!Writable()) return mba_io_error;
    Extent extent;
    extent.index = extentCount_;
    const mappedblocalloc_status status = OpenMappedMem(extent, true);
    if (status != mba_success) return status;
    extent.available = blocksPerExtent_;
    extents_.push_back(extent);
    freeBlocks_ += blocksPerExtent_;
    ++extentCount_;
    return mba_success;
}

void* MappedBlockAllocator::GetBlock() {
    Lock();
    char* block = nullptr;
    if (initialized_) {
        for (Extent& extent : extents_) {
            if (extent.freeCount != 0) {
                block = UnlinkFreeSpaceNode(extent);
                --extent.available;
                break;
            }
            if (extent.available != 0) {
                (void)GetMemBlock(extent, &block);
                break;
            }
        }
        if (block == nullptr && AddExtent() == mba_success)
            (void)GetMemBlock(extents_.back(), &block);
        if (block != nullptr) {
            --freeBlocks_;
            WriteState(block, kHandedOut);
        }
    }
    Unlock();
    return block != nullptr ? block + kPayloadOffset : nullptr;
}

mappedblocalloc_status MappedBlockAllocator::ReleaseBlock(void* pointer) {
    char* payload = static_cast<char*>(pointer);
    Lock();
    size_t at = 0;
    for (; at < extents_.size(); ++at) {
        const Extent& e = extents_[at];
        if (payload >= e.firstBlock && payload <= e.firstBlock + extentBytes_) break;
    }
    // Only a block's payload is taken: any other address in the view would have the header
    // or another block's bytes overwritten.
    if (at == extents_.size() ||
        !IsBlockStart(static_cast<uint64_t>(payload - kPayloadOffset - extents_[at].view))) {
        Unlock();
        return mba_invalid_block;
    }
    Extent& extent = extents_[at];
    char* block = payload - kPayloadOffset;
    if (ReadState(block) != kHandedOut) {
        Unlock();
        return mba_block_not_allocated;
    }
    WriteState(block, 0);
    LinkFreeSpaceNode(extent, block);
    ++extent.available;
    ++freeBlocks_;
    if (extents_.size() > 1 && extent.available == blocksPerExtent_ &&
        freeBlocks_ >= 2 * blocksPerExtent_) {
        // The file stays, and its number is not taken again in this run; the next run maps it.
        CloseExtent(extent);
        freeBlocks_ -= blocksPerExtent_;
        extents_.erase(extents_.begin() + static_cast<std::ptrdiff_t>(at));
    }
    Unlock();
    return mba_success;
}

bool MappedBlockAllocator::HasAllocatedBlocks() {
    Lock();
    const bool any = allocatedCount_ != 0;
    Unlock();
    return any;
}

void* MappedBlockAllocator::GetAllocatedBlock() {
    Lock();
    char* block = nullptr;
    while (allocatedCount_ != 0 && block == nullptr) {
        if (!allocatedNodes_.empty()) {
            block = reinterpret_cast<char*>(allocatedNodes_.back()) - kLinkOffset;
            allocatedNodes_.pop_back();
        } else if (allocatedList_ != nullptr) {
            block = allocatedList_;
            allocatedList_ = ReadLink(block);
            WriteLink(block, nullptr);
        } else {
            allocatedCount_ = 0;
            break;
        }
        --allocatedCount_;
        // A block released before it was collected, or one of an extent closed since, is
        // passed over.
        bool open = false;
        for (const Extent& e : extents_)
            open = open || (block >= e.firstBlock && block < e.firstBlock + extentBytes_);
        if (!open || ReadState(block) != kHandedOut) block = nullptr;
    }
    Unlock();
    return block != nullptr ? block + kPayloadOffset : nullptr;
}

bool MappedBlockAllocator::IsValid(void* pointer) const {
    if (pointer == nullptr) return false;
    return ReadState(static_cast<const char*>(pointer) - kPayloadOffset) == kHandedOut;
}

mappedblocalloc_status MappedBlockAllocator::Flush() {
    HouseLockGuard guard(cs_);
    for (const Extent& extent : extents_) {
        if (extent.view != nullptr && !platform::FlushFileView(extent.view, fileSize_)) {
            TOLVEN_LOG(LOGGER_ERROR, "MappedBlockAllocator", kFlushContext,
                       "MappedBlockAllocator::Flush(): FlushViewOfFile error <%u>",
                       platform::LastMapFileError());
            return mba_flush_failed;
        }
        if (extent.file != platform::kNoMapFile && !platform::FlushMapFile(extent.file)) {
            TOLVEN_LOG(LOGGER_ERROR, "MappedBlockAllocator", kFlushContext,
                       "MappedBlockAllocator::Flush(): FlushFileBuffers error <%u>",
                       platform::LastMapFileError());
            return mba_flush_failed;
        }
    }
    return mba_success;
}

mappedblocalloc_status MappedBlockAllocator::Term() {
    HouseLockGuard guard(cs_);
    if (!initialized_) return mba_success;
    for (Extent& extent : extents_)
        CloseExtent(extent);
    extents_.clear();
    pageSize_ = blockSize_ = stride_ = blocksPerExtent_ = extentBytes_ = fileSize_ = 0;
    pageWaste_ = freeBlocks_ = allocatedCount_ = extentCount_ = 0;
    firstAlignedOffset_ = blocksBeforeAligned_ = strideInverse_ = strideLimit_ = 0;
    strideShift_ = pageShift_ = 0;
    perPage_ = 0;
    // The lists point into the views just unmapped: they go with them, and the next Init
    // rebuilds them from the files.
    allocatedList_ = nullptr;
    allocatedNodes_.clear();
    directory_.clear();
    name_.clear();
    initialized_ = false;
    return mba_success;
}

bool MappedBlockAllocator::GetStats(_BLOCK_ALLOC_STATS& stats) {
    HouseLockGuard guard(cs_);
    stats.Reset();
    stats.Name = name_;
    stats.Id = id_;
    stats.FreeBlocks = freeBlocks_;
    stats.FreeMemory = stride_ * freeBlocks_;
    stats.BlockSize = blockSize_;
    return true;
}

}  // namespace TOLVEN
