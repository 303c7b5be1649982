// The record rules of the transaction file, shared by the table and by the file check.
#pragma once

#include <cstdint>
#include <cstring>

#include "tolven/csdb.h"
#include "tolven/transdb.h"

namespace TOLVEN::detail {

// The first read at a record: enough for a typical record in one call.
inline constexpr uint32_t kTransDbFirstRead = 2048;
// Header and footer.
inline constexpr uint32_t kTransDbOverhead = 20;
// No limit on where a record may end.
inline constexpr uint64_t kTransDbNoLimit = ~uint64_t{0};

inline uint32_t LoadU32(const unsigned char* p) noexcept {
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// Checks the header (and, for a blank record, the four bytes behind it) in `buf`, of which
// `got` bytes were read. CSDB_SUCCESS for a record header that passes, CSDB_END for a blank
// record, CSDB_CORRUPT otherwise.
inline csdb_status CheckRecordHeader(const unsigned char* buf, uint32_t got,
                                     _TRANSDB_ITEM_HDR* hdr) noexcept {
    if (got < sizeof(_TRANSDB_ITEM_HDR)) return CSDB_CORRUPT;
    std::memcpy(hdr, buf, sizeof(*hdr));
    if (hdr->TotalSize > kTransDbMaxRecord) return CSDB_CORRUPT;
    if (hdr->TotalSize == 0) {
        if (hdr->RecNum != 0 || hdr->reserved != 0) return CSDB_CORRUPT;
        // The footer of a blank record is the four bytes where a footer would follow the
        // header; bytes the file does not have count as zero.
        for (uint32_t i = 16; i < 20 && i < got; ++i)
            if (buf[i] != 0) return CSDB_CORRUPT;
        return CSDB_END;
    }
    if (hdr->TotalSize < kTransDbOverhead) return CSDB_CORRUPT;
    return CSDB_SUCCESS;
}

// Reads and checks the record at `position`, which must end at or before `limit`, with one
// read of up to kTransDbFirstRead bytes into `buf`, and for a larger record one read of its
// footer. `read(position, buffer, size, &got)` gives false on an error. On CSDB_SUCCESS
// `hdr` holds the header and `*got` the bytes in `buf`. CSDB_END at the end of the data
// (nothing to read, or a blank record), CSDB_CORRUPT, or CSDB_IO_ERROR for a failed read or
// a record the file does not hold whole.
template <class Read>
csdb_status ProbeRecord(Read&& read, uint64_t position, uint64_t limit, unsigned char* buf,
                        uint32_t* got, _TRANSDB_ITEM_HDR* hdr) {
    *got = 0;
    std::memset(hdr, 0, sizeof(*hdr));
    if (position >= limit) return CSDB_END;
    const uint64_t room = limit - position;
    const uint32_t want =
        room < kTransDbFirstRead ? static_cast<uint32_t>(room) : kTransDbFirstRead;
    if (!read(position, buf, want, got)) return CSDB_IO_ERROR;
    if (*got == 0) return CSDB_END;
    const csdb_status st = CheckRecordHeader(buf, *got, hdr);
    if (st != CSDB_SUCCESS) return st;
    if (hdr->TotalSize > room) return CSDB_CORRUPT;
    if (hdr->TotalSize <= *got)
        return LoadU32(buf + hdr->TotalSize - 4) == hdr->TotalSize ? CSDB_SUCCESS : CSDB_CORRUPT;
    unsigned char footer[4];
    uint32_t footerGot = 0;
    if (!read(position + hdr->TotalSize - 4, footer, 4, &footerGot) || footerGot != 4)
        return CSDB_IO_ERROR;
    return LoadU32(footer) == hdr->TotalSize ? CSDB_SUCCESS : CSDB_CORRUPT;
}

}  // namespace TOLVEN::detail
