// Ordering comparison of blobs and of single fields, and the difference of two blobs.
#include <cfloat>
#include <cstdlib>
#include <cstring>

#include "blob/blob_xml.h"
#include "tolven/blobcompare.h"
#include "tolven/logapi.h"

namespace TOLVEN {
namespace detail {
namespace {

// How nested blobs are compared: as the comparison that met them does.
enum class Mode { Position, ByName, Sorted };

struct Tolerance {
    double d;
    float f;
};

Tolerance TolOf(const _blob_compare* t) noexcept {
    return t != nullptr ? Tolerance{t->doubleTolerance, t->floatTolerance}
                        : Tolerance{DBL_EPSILON, FLT_EPSILON};
}

template <typename T>
inline int Order(T a, T b) noexcept {
    return a < b ? -1 : (b < a ? 1 : 0);
}

// Equal within `tol`, otherwise ordered.
template <typename T>
inline int WithinOrder(T a, T b, T tol) noexcept {
    if (a >= b - tol && b + tol >= a) return 0;
    return a < b ? -1 : 1;
}

inline int Sign(int v) noexcept {
    return (v > 0) - (v < 0);
}

int CompareBlobs(const _BLOB_INFO* a, const _BLOB_INFO* b, const Tolerance& tol, Mode mode,
                 bool log) noexcept;

inline bool IsNumber(uint32_t t) noexcept {
    return t >= BLOB_FIELD_TYPE_INT8 && t <= BLOB_FIELD_TYPE_FLOAT64;
}
inline bool IsSignedNumber(uint32_t t) noexcept {
    return t >= BLOB_FIELD_TYPE_INT8 && t <= BLOB_FIELD_TYPE_INT64;
}
inline bool IsFloat(uint32_t t) noexcept {
    return t == BLOB_FIELD_TYPE_FLOAT32 || t == BLOB_FIELD_TYPE_FLOAT64;
}

// Two fields of one type.
int CompareSameType(const FieldView& x, const FieldView& y, const Tolerance& tol,
                    Mode mode) noexcept {
    switch (x.type) {
        case BLOB_FIELD_TYPE_STRING:
            return Sign(std::strcmp(reinterpret_cast<const char*>(x.data),
                                    reinterpret_cast<const char*>(y.data)));
        case BLOB_FIELD_TYPE_BOOL:
        case BLOB_FIELD_TYPE_UINT8:
            return Order(x.data[0], y.data[0]);
        case BLOB_FIELD_TYPE_INT8:
            return Order(static_cast<int8_t>(x.data[0]), static_cast<int8_t>(y.data[0]));
        case BLOB_FIELD_TYPE_INT16:
            return Order(LoadAt<int16_t>(x.data), LoadAt<int16_t>(y.data));
        case BLOB_FIELD_TYPE_INT32:
            return Order(LoadAt<int32_t>(x.data), LoadAt<int32_t>(y.data));
        case BLOB_FIELD_TYPE_INT64:
            return Order(LoadAt<int64_t>(x.data), LoadAt<int64_t>(y.data));
        case BLOB_FIELD_TYPE_UINT16:
            return Order(LoadAt<uint16_t>(x.data), LoadAt<uint16_t>(y.data));
        case BLOB_FIELD_TYPE_UINT32:
            return Order(LoadAt<uint32_t>(x.data), LoadAt<uint32_t>(y.data));
        case BLOB_FIELD_TYPE_UINT64:
            return Order(LoadAt<uint64_t>(x.data), LoadAt<uint64_t>(y.data));
        case BLOB_FIELD_TYPE_FLOAT32:
            return WithinOrder(LoadAt<float>(x.data), LoadAt<float>(y.data), tol.f);
        case BLOB_FIELD_TYPE_FLOAT64:
            return WithinOrder(LoadAt<double>(x.data), LoadAt<double>(y.data), tol.d);
        case BLOB_FIELD_TYPE_BLOB: {
            _BLOB_INFO* na = BorrowNested(x);
            _BLOB_INFO* nb = BorrowNested(y);
            const int r = CompareBlobs(na, nb, tol, mode, false);
            if (na != nullptr) (void)ReleaseBlob(&na);
            if (nb != nullptr) (void)ReleaseBlob(&nb);
            return r;
        }
        case BLOB_FIELD_TYPE_TIMESTAMP: {
            const auto ta = LoadAt<_blob_timestamp>(x.data);
            const auto tb = LoadAt<_blob_timestamp>(y.data);
            return Sign(CompareBlobTime(ta, tb));
        }
        case BLOB_FIELD_TYPE_UTF16: {
            const uint64_t na = x.size / 2, nb = y.size / 2;
            for (uint64_t k = 0;; ++k) {
                const uint16_t ua = k < na ? LoadAt<uint16_t>(x.data + 2 * k) : 0;
                const uint16_t ub = k < nb ? LoadAt<uint16_t>(y.data + 2 * k) : 0;
                if (ua != ub) return ua < ub ? -1 : 1;
                if (ua == 0) return 0;
            }
        }
        default:
            if (IsNumericArrayType(x.type) || x.type == BLOB_FIELD_TYPE_BINARY) {
                const uint32_t ca = LoadAt<uint32_t>(x.data), cb = LoadAt<uint32_t>(y.data);
                if (ca != cb) return ca > cb ? -1 : 1;
                return Sign(std::memcmp(x.data, y.data, size_t{ca} + 4));
            }
            return 0;
    }
}

// Two fields of different types.
int CompareMixed(const _BLOB_INFO* a, uint64_t i, const _BLOB_INFO* b, uint64_t j,
                 const Tolerance& tol) noexcept {
    const uint32_t ta = GetFieldType(a, i), tb = GetFieldType(b, j);
    if (ta == BLOB_FIELD_TYPE_MAX) return -1;
    if (tb == BLOB_FIELD_TYPE_MAX) return 1;
    if (!IsNumber(ta) && !IsNumber(tb)) {
        char sa[kXmlValueRoom] = "", sb[kXmlValueRoom] = "";
        (void)GetStr(a, i, sa, sizeof sa);
        (void)GetStr(b, j, sb, sizeof sb);
        return Sign(std::strcmp(sa, sb));
    }
    if (!IsFloat(ta) && !IsFloat(tb)) {
        if (!IsSignedNumber(ta) && !IsSignedNumber(tb)) {
            uint64_t va = 0, vb = 0;
            (void)GetU64(a, i, &va);
            (void)GetU64(b, j, &vb);
            return Order(va, vb);
        }
        int64_t va = 0, vb = 0;
        (void)GetI64(a, i, &va);
        (void)GetI64(b, j, &vb);
        return Order(va, vb);
    }
    double va = 0, vb = 0;
    (void)GetF64(a, i, &va);
    (void)GetF64(b, j, &vb);
    return WithinOrder(va, vb, tol.d);
}

// Field `i` of `a` against field `j` of `b`; either may be past its blob's end. The caller
// holds both read locks.
int CompareFields(const _BLOB_INFO* a, uint64_t i, const _BLOB_INFO* b, uint64_t j,
                  const Tolerance& tol, Mode mode) noexcept {
    if (i >= a->fieldCount) return j < b->fieldCount ? -1 : 0;
    if (j >= b->fieldCount) return 1;
    const FieldView x = ViewOf(a, i), y = ViewOf(b, j);
    if (x.type == y.type) return CompareSameType(x, y, tol, mode);
    return CompareMixed(a, i, b, j, tol);
}

inline int CountOrder(const _BLOB_INFO* a, const _BLOB_INFO* b) noexcept {
    return Order(a->fieldCount, b->fieldCount);
}

inline const char* FieldName(const _BLOB_INFO* blob, uint64_t i) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[i];
    return EntryNameLength(e) != 0
               ? reinterpret_cast<const char*>(blob->buffer + e.headerOffset + 1)
               : nullptr;
}

int ByPosition(const _BLOB_INFO* a, const _BLOB_INFO* b, const Tolerance& tol) noexcept {
    if (a->fieldCount == 0) return b->fieldCount != 0 ? -1 : 0;
    for (uint64_t i = 0; i < a->fieldCount; ++i)
        if (const int r = CompareFields(a, i, b, i, tol, Mode::Position)) return r;
    return CountOrder(a, b);
}

int ByName(const _BLOB_INFO* a, const _BLOB_INFO* b, const Tolerance& tol) noexcept {
    for (uint64_t i = 0; i < a->fieldCount; ++i) {
        const char* name = FieldName(a, i);
        if (name == nullptr) continue;
        uint64_t j = 0;
        if (!FindField(b, name, &j)) return 1;
        if (const int r = CompareFields(a, i, b, j, tol, Mode::ByName)) return r;
    }
    return CountOrder(a, b);
}

int ByteOrder(const void* x, const void* y) {
    return std::strcmp(*static_cast<const char* const*>(x), *static_cast<const char* const*>(y));
}

int SortedNames(const _BLOB_INFO* a, const _BLOB_INFO* b, const Tolerance& tol, bool log) noexcept {
    const uint64_t total = a->fieldCount + b->fieldCount;
    WorkArea<const char*, 1000> work(total);
    if (work.get() == nullptr) return 0;
    const char** names = work.get();
    uint64_t n = 0;
    for (const _BLOB_INFO* blob : {a, b})
        for (uint64_t i = 0; i < blob->fieldCount; ++i)
            if (const char* name = FieldName(blob, i)) names[n++] = name;
    std::qsort(names, static_cast<size_t>(n), sizeof *names, ByteOrder);
    int result = 0;
    for (uint64_t k = 0; k < n; ++k) {
        if (k != 0 && std::strcmp(names[k], names[k - 1]) == 0) continue;
        uint64_t i = 0, j = 0;
        const bool inA = FindField(a, names[k], &i), inB = FindField(b, names[k], &j);
        int r;
        if (!inB) {
            r = 1;
            if (log)
                TOLVEN_LOG(LOGGER_NORMAL, "BlobCompare", "TOLVEN::CompareBlobByNameLogDiff",
                           "Missing field %s in right blob", names[k]);
        } else if (!inA) {
            r = -1;
            if (log)
                TOLVEN_LOG(LOGGER_NORMAL, "BlobCompare", "TOLVEN::CompareBlobByNameLogDiff",
                           "Missing field %s in left blob", names[k]);
        } else {
            r = CompareFields(a, i, b, j, tol, Mode::Sorted);
            if (r != 0 && log)
                TOLVEN_LOG(LOGGER_NORMAL, "BlobCompare", "TOLVEN::CompareBlobByNameLogDiff",
                           "Different field %s", names[k]);
        }
        if (r == 0) continue;
        if (!log) return r;
        if (result == 0) result = r;
    }
    return result;
}

int CompareBlobs(const _BLOB_INFO* a, const _BLOB_INFO* b, const Tolerance& tol, Mode mode,
                 bool log) noexcept {
    if (a == nullptr || b == nullptr) return 2;
    BlobReadGuard ga(a);
    BlobReadGuard gb(b);
    switch (mode) {
        case Mode::Position:
            return ByPosition(a, b, tol);
        case Mode::ByName:
            return ByName(a, b, tol);
        default:
            return SortedNames(a, b, tol, log);
    }
}

}  // namespace
}  // namespace detail

using namespace detail;

int CompareBlob(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance) {
    return CompareBlobs(a, b, TolOf(tolerance), Mode::Position, false);
}

int CompareBlobByName(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance) {
    return CompareBlobs(a, b, TolOf(tolerance), Mode::ByName, false);
}

int CompareBlobByNameLogDiff(const _BLOB_INFO* a, const _BLOB_INFO* b, _blob_compare* tolerance,
                             bool log) {
    return CompareBlobs(a, b, TolOf(tolerance), Mode::Sorted, log);
}

int CompareBlobByFieldName(const _BLOB_INFO* a, const _BLOB_INFO* b, const char* name,
                           _blob_compare* tolerance) {
    if (a == nullptr || b == nullptr) return 2;
    BlobReadGuard ga(a);
    BlobReadGuard gb(b);
    uint64_t i = 0, j = 0;
    const bool inA = FindField(a, name, &i), inB = FindField(b, name, &j);
    if (!inB) return inA ? 1 : 0;
    if (!inA) return -1;
    return CompareFields(a, i, b, j, TolOf(tolerance), Mode::ByName);
}

blob_status DiffBlob(_BLOB_INFO* blob, const _BLOB_INFO* other) {
    if (blob == nullptr || other == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard gw(blob);
    BlobReadGuard gr(other);
    const Tolerance tol = TolOf(nullptr);
    for (uint64_t i = blob->fieldCount; i-- > 0;) {
        const char* name = FieldName(blob, i);
        uint64_t j = 0;
        if (name == nullptr || !FindField(other, name, &j)) continue;
        if (CompareFields(blob, i, other, j, tol, Mode::ByName) == 0) (void)RemoveField(blob, i);
    }
    return BLOB_STATUS_SUCCESS;
}

}  // namespace TOLVEN
