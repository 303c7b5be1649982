#include "platform/win32_api.h"

#include "platform/coarseclock.h"

namespace TOLVEN::platform {

uint64_t CoarseMonotonicMs() noexcept {
    return ::GetTickCount64();
}

}  // namespace TOLVEN::platform
