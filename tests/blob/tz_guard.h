// Puts the process in a known time zone for one test and restores the old one after.
#pragma once

#include <cstdlib>
#include <string>

#include "platform/timezone.h"

namespace tolven_test {

// Sets the TZ rule for the scope; Applied() is false where the platform ignores TZ rules,
// and the test should then skip. Not thread-safe: the zone is process-wide.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* rule) {
        const char* old = std::getenv("TZ");
        hadOld_ = old != nullptr;
        if (hadOld_) old_ = old;
        applied_ = TOLVEN::platform::SetProcessTimeZone(rule);
    }
    ~ScopedTimeZone() {
        if (applied_) (void)TOLVEN::platform::SetProcessTimeZone(hadOld_ ? old_.c_str() : nullptr);
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

    bool Applied() const { return applied_; }

  private:
    std::string old_;
    bool hadOld_ = false;
    bool applied_ = false;
};

}  // namespace tolven_test
