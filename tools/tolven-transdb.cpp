// tolven-transdb: shows what a transaction file holds, and moves a torn tail out of it into
// a side file so that the file opens again, losing nothing.
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "tolven/transdb.h"

namespace {

const char kUsage[] =
    "Usage: tolven-transdb check [--summary] FILE\n"
    "       tolven-transdb repair FILE\n"
    "       tolven-transdb --help\n"
    "\n"
    "check   lists the whole records of the transaction file FILE (number, offset, size),\n"
    "        the last whole record and what lies behind it, and whether the file opens.\n"
    "        --summary leaves out the list. Changes nothing.\n"
    "repair  copies the bytes behind the last whole record to a new side file\n"
    "        FILE.YYYYMMDD-HHMMSS.tail, syncs it to the device, then cuts FILE after the\n"
    "        last whole record, so that it opens. FILE followed by the side file is FILE\n"
    "        as it was. Refused while a program has FILE open.\n"
    "\n"
    "Exit status: 0 the file opens (check) or was repaired (repair); 1 the file does not\n"
    "open as it is, or has bytes behind its last whole record (check); 2 bad usage or a\n"
    "file that cannot be read or changed.\n";

const char* StatusName(TOLVEN::csdb_status st) {
    switch (st) {
        case TOLVEN::CSDB_SUCCESS:
            return "success";
        case TOLVEN::CSDB_END:
            return "end of data";
        case TOLVEN::CSDB_CORRUPT:
            return "corrupt record";
        case TOLVEN::CSDB_IO_ERROR:
            return "record cut short (I/O error)";
        case TOLVEN::CSDB_BAD_VERSION:
            return "newer version";
        default:
            return "error";
    }
}

bool PrintRecord(void*, uint64_t recNum, uint64_t position, uint32_t totalSize) {
    std::printf("record %" PRIu64 " at %" PRIu64 ", %u bytes\n", recNum, position, totalSize);
    return true;
}

void PrintReport(const char* path, const TOLVEN::TransDbFileReport& r) {
    std::printf("file: %s, %" PRIu64 " bytes, version %u, header %u bytes\n", path, r.fileSize,
                r.version, r.headerSize);
    std::printf("whole records: %" PRIu64, r.records);
    if (r.records > 0)
        std::printf(", numbers %" PRIu64 " to %" PRIu64 "%s", r.firstRecNum, r.lastRecNum,
                    r.numbersInOrder ? "" : " (not in order)");
    std::printf("\n");
    if (r.records > 0)
        std::printf("last whole record: %" PRIu64 " at %" PRIu64 ", data ends at %" PRIu64 "\n",
                    r.lastRecNum, r.lastRecordPosition, r.dataEnd);
    else
        std::printf("last whole record: none, data ends at %" PRIu64 "\n", r.dataEnd);
    std::printf("behind it: %" PRIu64 " bytes (%s)\n", r.tailBytes, StatusName(r.stop));
    std::printf("opens: %s\n", r.openStatus == TOLVEN::CSDB_SUCCESS ? "yes" : "no");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc >= 3 && std::strcmp(argv[1], "check") == 0) {
        const bool summary = argc == 4 && std::strcmp(argv[2], "--summary") == 0;
        if (argc != 3 && !summary) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        const char* path = argv[argc - 1];
        TOLVEN::TransDbFileReport report;
        const TOLVEN::csdb_status st =
            TOLVEN::CheckTransDbFile(path, &report, summary ? nullptr : PrintRecord, nullptr);
        if (st == TOLVEN::CSDB_IO_ERROR) {
            std::fprintf(stderr, "tolven-transdb: cannot read %s\n", path);
            return 2;
        }
        PrintReport(path, report);
        return st == TOLVEN::CSDB_SUCCESS && report.openStatus == TOLVEN::CSDB_SUCCESS &&
                       report.tailBytes == 0
                   ? 0
                   : 1;
    }
    if (argc == 3 && std::strcmp(argv[1], "repair") == 0) {
        const char* path = argv[2];
        TOLVEN::TransDbFileReport report;
        char side[4096];
        const TOLVEN::csdb_status st = TOLVEN::RepairTransDbFile(path, &report, side, sizeof(side));
        if (st == TOLVEN::CSDB_BAD_VERSION) {
            std::fprintf(stderr,
                         "tolven-transdb: %s has version %u, newer than this tool; "
                         "left as it is\n",
                         path, report.version);
            return 2;
        }
        if (st != TOLVEN::CSDB_SUCCESS) {
            std::fprintf(stderr,
                         "tolven-transdb: cannot repair %s (it may be open in a program); "
                         "left as it is\n",
                         path);
            return 2;
        }
        PrintReport(path, report);
        if (side[0] == '\0')
            std::printf("nothing behind the last whole record: file left as it is\n");
        else
            std::printf("moved %" PRIu64 " bytes to %s; %s now ends at %" PRIu64 "\n",
                        report.tailBytes, side, path, report.dataEnd);
        return 0;
    }
    std::fputs(kUsage, stderr);
    return 2;
}
