#include "platform/host.h"

namespace TOLVEN::platform {

bool RunningUnderWine() noexcept {
    return false;
}

}  // namespace TOLVEN::platform
