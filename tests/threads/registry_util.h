// Looks at the thread registry from the thread tests.
#pragma once

#include <string>

#include "tolven/autothread.h"

namespace TOLVEN::test {

// True while a thread of that name is listed.
inline bool IsRegistered(const std::string& name) {
    auto& reg = thread_details::get();
    QuickLockGuard guard(reg.get_lock());
    for (const auto& [id, data] : reg.get_thread_map())
        if (data->name == name) return true;
    return false;
}

}  // namespace TOLVEN::test
