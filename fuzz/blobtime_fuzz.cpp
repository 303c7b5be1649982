// Feeds arbitrary text to the time parser and checks what a good result promises.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tolven/blobtime.h"

namespace {

const char kNanosecondsMessage[] = "Invalid date format.  The nanoseconds are incorrect.";

void Check(bool condition) {
    if (!condition) std::abort();
}

// A good parse gives fields in their ranges; a bad one always says why.
void CheckResult(int result, const TOLVEN::_blob_timestamp& t, const TOLVEN::UtilError& error) {
    Check(result == 0 || result == 1);
    if (result == 0) {
        Check(error.HasError());
        return;
    }
    Check(!error.HasError() || std::strcmp(error.GetError(), kNanosecondsMessage) == 0);
    Check(t.month <= 12 && t.day <= 31 && t.hour <= 23 && t.minute <= 59 && t.second <= 59);
    Check(t.nanoseconds < 1000000000u);
    Check(t.year == 0 || t.year >= 100);
    char text[64];
    Check(TOLVEN::GetBlobTimeAsStr(text, sizeof text, t, true) == TOLVEN::BLOB_STATUS_SUCCESS);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);  // stops at a NUL
    TOLVEN::_blob_timestamp t;
    TOLVEN::UtilError error;
    CheckResult(TOLVEN::ConvertStringToTime(text.c_str(), &t, &error), t, error);

    for (bool fraction : {false, true}) {
        TOLVEN::_blob_timestamp clock{};
        TOLVEN::UtilError clockError;
        const int result = TOLVEN::ConvertStringToHMS(text.c_str(), &clock, &clockError, fraction);
        Check(result == 1 ? !clockError.HasError() : clockError.HasError());
        if (result == 1) CheckResult(result, clock, clockError);
    }
    return 0;
}
