// What the multi-key engine needs that is no template: the spin word of its process-wide
// accessors and its log lines.
#include "platform/thread.h"
#include "tolven/logapi.h"
#include "tolven/mkdbimpl.h"

namespace TOLVEN::detail {
namespace {

// Where the engine's log lines come from.
constexpr const char* kMkdbLogSource = "include/mkdbimpl";

}  // namespace

void mkdb_spin_word::Enter() noexcept {
    uint32_t expected = 0;
    while (!spin_.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
        expected = 0;
        platform::SleepMs(100);
    }
}

void LogMkdbMessage(mkdb_message message) {
    switch (message) {
        case mkdb_message::add_index_refused:
            TOLVEN_LOG(LOGGER_ERROR, kMkdbLogSource, "TOLVEN::multikeydb_impl::AddIndex",
                       "multikeydb: AddIndex() called while this thread holds a record lock");
            break;
        case mkdb_message::clear_refused:
            TOLVEN_LOG(LOGGER_ERROR, kMkdbLogSource, "TOLVEN::multikeydb_impl::Clear",
                       "multikeydb: Clear() called while this thread holds a record lock");
            break;
        case mkdb_message::update_corruption:
            TOLVEN_LOG(LOGGER_ERROR, kMkdbLogSource, "TOLVEN::multikeydb_impl::UpdateRow",
                       "multikeydb::update() corruption!");
            break;
    }
}

}  // namespace TOLVEN::detail
