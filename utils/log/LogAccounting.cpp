// Per-site limits of LogProcessEventEx.
#include "log/LogAccounting.h"

#include <cstring>
#include <map>
#include <memory>

#include "log/LogApiInternal.h"
#include "tolven/basicsrv.h"
#include "tolven/logapi.h"
#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

// A call site: ordered by line, then by the file's text, so that a search compares text
// only between sites on the same line.
struct SiteKey {
    uint32_t line;
    const char* file;  // kept as given
};

struct SiteLess {
    bool operator()(const SiteKey& a, const SiteKey& b) const noexcept {
        if (a.line != b.line) return a.line < b.line;
        return std::strcmp(a.file, b.file) < 0;
    }
};

struct SiteCount {
    uint32_t count;
    int maxCount;
};

using SiteTable = std::map<SiteKey, SiteCount, SiteLess>;

// The table, made by the first LogProcessEventEx after a start or a reset; under the
// occurrence lock.
SiteTable*& Table() {
    static SiteTable* table = nullptr;
    return table;
}

}  // namespace

log_status LogProcessEventEx(int maxCount, logger_event_level level, const char* file,
                             uint32_t line, const char* function, const char* format, va_list args,
                             uint32_t userValue) {
    if (file == nullptr) return LOG_BAD_ARGUMENT;
    {
        HouseLockGuard guard(detail::LogOccurrenceLock());
        SiteTable*& table = Table();
        try {
            if (table == nullptr) table = new SiteTable;
            const auto [it, inserted] =
                table->try_emplace(SiteKey{line, file}, SiteCount{0, maxCount});
            if (!inserted) {
                SiteCount& site = it->second;
                if (static_cast<int64_t>(site.count) >= static_cast<int64_t>(site.maxCount))
                    return LOG_COUNT_EXCEEDED;
                ++site.count;
                site.maxCount = maxCount;
            }
        } catch (...) {
            // Out of memory: the message goes out uncounted.
        }
    }
    return LogProcessEvent(level, file, line, function, format, args, userValue);
}

void LogNReset() {
    HouseLockGuard guard(detail::LogOccurrenceLock());
    SiteTable*& table = Table();
    delete table;
    table = nullptr;
}

int LogNShowDetails(BasicSrvStatusWriter* writer) {
    if (writer == nullptr) return 0;
    HouseLockGuard guard(detail::LogOccurrenceLock());
    const SiteTable* table = Table();
    if (table == nullptr) {
        (void)writer->WriteStatus("No Logn details found!\n");
        return 0;
    }
    for (const auto& [key, site] : *table)
        (void)writer->FormatStatus("Line=%i File=%s Count=%u MaxCount=%u\n",
                                   static_cast<int>(key.line), key.file, site.count,
                                   static_cast<unsigned>(site.maxCount));
    (void)writer->FormatStatus("%i Logn items found\n", static_cast<int>(table->size()));
    return 0;
}

}  // namespace TOLVEN
