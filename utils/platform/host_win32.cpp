#include "platform/host.h"
#include "platform/win32_api.h"

namespace TOLVEN::platform {

bool RunningUnderWine() noexcept {
    // Wine's ntdll exports wine_get_version; Windows' never does.
    static const bool wine = [] {
        HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
        return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
    }();
    return wine;
}

}  // namespace TOLVEN::platform
