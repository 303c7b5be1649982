#include "tolven/refobj.h"

namespace TOLVEN {

ReferencedObj::~ReferencedObj() = default;

int32_t ReferencedObj::Release() {
    const int32_t count = refCount_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (count == 0) {
        FinalRelease();
        DestroyObject();
    }
    return count;
}

void ReferencedObj::FinalRelease() {}

void ReferencedObj::DestroyObject() {
    delete this;
}

}  // namespace TOLVEN
