// The check and the repair of a transaction file, outside any open table.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "platform/file.h"
#include "tolven/blobtime.h"
#include "tolven/transdb.h"
#include "transdb/TransDbRecord.h"

namespace TOLVEN {
namespace {

constexpr uint32_t kAlternateHeaderSize = 44;
constexpr uint32_t kCopyChunk = 64 * 1024;
constexpr int kMaxSideFileTries = 1000;

class FileCloser {
  public:
    explicit FileCloser(std::FILE* file) noexcept : file_(file) {}
    ~FileCloser() {
        if (file_ != nullptr) (void)std::fclose(file_);
    }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;
    std::FILE* get() const noexcept { return file_; }
    // Closes now; false when the close failed.
    bool Close() noexcept {
        std::FILE* file = file_;
        file_ = nullptr;
        return file == nullptr || std::fclose(file) == 0;
    }

  private:
    std::FILE* file_;
};

// Walks the records from `headerSize` as Open does, and fills the record part of `report`.
void WalkRecords(std::FILE* file, uint64_t size, uint32_t headerSize, TransDbFileReport* report,
                 TransDbRecordVisitor visit, void* user) {
    auto read = [file](uint64_t at, void* buffer, uint32_t want, uint32_t* got) {
        size_t n = 0;
        const uint32_t error = platform::ReadFileAt(file, at, buffer, want, &n);
        *got = static_cast<uint32_t>(n);
        return error == 0;
    };
    report->headerSize = headerSize;
    report->records = report->firstRecNum = report->lastRecNum = report->lastRecordPosition = 0;
    report->numbersInOrder = true;
    report->stop = CSDB_END;
    uint64_t position = headerSize;
    unsigned char buf[detail::kTransDbFirstRead];
    bool visiting = visit != nullptr;
    while (position + detail::kTransDbOverhead < size) {
        uint32_t got = 0;
        _TRANSDB_ITEM_HDR hdr;
        const csdb_status st =
            detail::ProbeRecord(read, position, detail::kTransDbNoLimit, buf, &got, &hdr);
        if (st != CSDB_SUCCESS) {
            report->stop = st;
            break;
        }
        if (report->records == 0) {
            report->firstRecNum = hdr.RecNum;
            report->numbersInOrder = hdr.RecNum == 1;
        } else if (hdr.RecNum != report->lastRecNum + 1) {
            report->numbersInOrder = false;
        }
        ++report->records;
        report->lastRecNum = hdr.RecNum;
        report->lastRecordPosition = position;
        if (visiting) visiting = visit(user, hdr.RecNum, position, hdr.TotalSize);
        position += hdr.TotalSize;
    }
    report->dataEnd = position < size ? position : size;
    report->tailBytes = size - report->dataEnd;
    report->openStatus = report->stop == CSDB_END ? CSDB_SUCCESS : report->stop;
}

csdb_status CheckOpenFile(std::FILE* file, TransDbFileReport* report, TransDbRecordVisitor visit,
                          void* user) {
    *report = TransDbFileReport{};
    uint64_t size = 0;
    if (!platform::GetOpenFileSize(file, &size)) return CSDB_IO_ERROR;
    report->fileSize = size;
    if (size == 0) {
        report->stop = CSDB_END;
        return CSDB_SUCCESS;
    }
    unsigned char bytes[4];
    size_t got = 0;
    if (platform::ReadFileAt(file, 0, bytes, 4, &got) != 0) return CSDB_IO_ERROR;
    if (got < 4) {
        // Open cannot read a version here: the whole file is the tail.
        report->tailBytes = size;
        report->stop = report->openStatus = CSDB_IO_ERROR;
        return CSDB_SUCCESS;
    }
    report->version = detail::LoadU32(bytes);
    if (report->version > kTransDbVersion) {
        report->stop = report->openStatus = CSDB_BAD_VERSION;
        return CSDB_BAD_VERSION;
    }
    WalkRecords(file, size, kTransDbHeaderSize, report, nullptr, nullptr);
    if (report->openStatus != CSDB_SUCCESS && report->version == 1) {
        // An older writer's 44-byte header: take whichever reading holds more whole data.
        TransDbFileReport alternate = *report;
        WalkRecords(file, size, kAlternateHeaderSize, &alternate, nullptr, nullptr);
        if (alternate.openStatus == CSDB_SUCCESS || alternate.dataEnd > report->dataEnd)
            *report = alternate;
    }
    if (visit != nullptr) {
        TransDbFileReport again = *report;
        WalkRecords(file, size, report->headerSize, &again, visit, user);
    }
    return CSDB_SUCCESS;
}

// A new side file beside `path`, named after it and the local time; null when none can
// be made.
std::FILE* MakeSideFile(const std::string& path, std::string* name) {
    _blob_timestamp now{};
    (void)GetCurrentBlobTime(&now);
    char stamp[32];
    std::snprintf(stamp, sizeof(stamp), ".%04u%02u%02u-%02u%02u%02u", now.year, now.month, now.day,
                  now.hour, now.minute, now.second);
    for (int i = 1; i <= kMaxSideFileTries; ++i) {
        *name = path + stamp;
        if (i > 1) *name += "-" + std::to_string(i);
        *name += ".tail";
        std::FILE* file = platform::CreateNewFile(name->c_str());
        if (file != nullptr) return file;
        platform::FileStamp existing;
        if (!platform::GetFileStamp(name->c_str(), &existing)) return nullptr;  // not a clash
    }
    return nullptr;
}

}  // namespace

csdb_status CheckTransDbFile(const char* path, TransDbFileReport* report,
                             TransDbRecordVisitor visit, void* user) {
    if (path == nullptr || report == nullptr) return CSDB_BAD_ARGUMENT;
    *report = TransDbFileReport{};
    FileCloser file(platform::OpenFileShared(path, "rb"));
    if (file.get() == nullptr) return CSDB_IO_ERROR;
    return CheckOpenFile(file.get(), report, visit, user);
}

csdb_status RepairTransDbFile(const char* path, TransDbFileReport* report, char* sideFile,
                              size_t sideFileSize) {
    if (sideFile != nullptr && sideFileSize > 0) sideFile[0] = '\0';
    if (path == nullptr) return CSDB_BAD_ARGUMENT;
    TransDbFileReport local;
    if (report == nullptr) report = &local;
    *report = TransDbFileReport{};
    // Held as a writer: a table or another repair that has the file open keeps it.
    FileCloser file(platform::OpenFileDenyWrite(path, false));
    if (file.get() == nullptr) return CSDB_IO_ERROR;
    const csdb_status st = CheckOpenFile(file.get(), report, nullptr, nullptr);
    if (st != CSDB_SUCCESS) return st;
    if (report->tailBytes == 0) return CSDB_SUCCESS;

    std::string name;
    FileCloser side(MakeSideFile(path, &name));
    if (side.get() == nullptr) return CSDB_IO_ERROR;
    std::unique_ptr<char[]> chunk(new (std::nothrow) char[kCopyChunk]);
    if (!chunk) return CSDB_OUT_OF_MEMORY;
    for (uint64_t done = 0; done < report->tailBytes;) {
        const uint64_t left = report->tailBytes - done;
        const size_t want = left < kCopyChunk ? static_cast<size_t>(left) : kCopyChunk;
        size_t got = 0, written = 0;
        if (platform::ReadFileAt(file.get(), report->dataEnd + done, chunk.get(), want, &got) !=
                0 ||
            got != want ||
            platform::WriteFileAt(side.get(), done, chunk.get(), want, &written) != 0 ||
            written != want)
            return CSDB_IO_ERROR;
        done += want;
    }
    // The side file is on the device, with its name, before the file loses a byte.
    if (!platform::SyncFileData(side.get()) || !side.Close() ||
        !platform::SyncParentDirectory(name.c_str()))
        return CSDB_IO_ERROR;
    if (!platform::TruncateOpenFile(file.get(), report->dataEnd) ||
        !platform::SyncFileData(file.get()) || !file.Close())
        return CSDB_IO_ERROR;
    if (sideFile != nullptr && sideFileSize > 0) {
        const size_t n = name.size() < sideFileSize - 1 ? name.size() : sideFileSize - 1;
        std::memcpy(sideFile, name.data(), n);
        sideFile[n] = '\0';
    }
    return CSDB_SUCCESS;
}

}  // namespace TOLVEN
