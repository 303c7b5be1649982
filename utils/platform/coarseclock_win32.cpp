#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include "platform/coarseclock.h"

namespace TOLVEN::platform {

uint64_t CoarseMonotonicMs() noexcept {
    return ::GetTickCount64();
}

}  // namespace TOLVEN::platform
