// Typed overwrites and appends of blob fields: Set by number and by name, and the Add calls
// that find or append a field and then store into it as Set does.
#include "blob/blob_typed.h"

namespace TOLVEN {
namespace detail {

namespace {

// Stores `n` bytes of text (no terminator in `text`) into a STRING field.
blob_status StoreStringBytes(_BLOB_INFO* blob, uint64_t index, const char* text,
                             uint64_t n) noexcept {
    if (!InBuffer(blob, text)) return StoreVariable(blob, index, text, n + 1, 1);
    // Text read out of this very buffer would move under the store: copy it first.
    WorkArea<char, 256> copy(n);
    if (copy.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    std::memcpy(copy.get(), text, static_cast<size_t>(n));
    return StoreVariable(blob, index, copy.get(), n + 1, 1);
}

// Stores `n` bytes of text into a UTF16 field, each byte widened.
blob_status StoreWidened(_BLOB_INFO* blob, uint64_t index, const char* text, uint64_t n) noexcept {
    WorkArea<char16_t, 128> wide(n + 1);
    if (wide.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    WidenBytes(text, n, wide.get());
    return StoreVariable(blob, index, wide.get(), 2 * (n + 1), 2);
}

// SetX: the value converted to the field's type.
template <typename Tok>
blob_status StoreScalar(_BLOB_INFO* blob, uint64_t index, typename Tok::type v) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    const uint32_t type = EntryType(blob, e);
    if (type == BLOB_FIELD_TYPE_STRING || type == BLOB_FIELD_TYPE_UTF16) {
        char text[kNumberTextRoom];
        const size_t n = ValueText<Tok>(text, v);
        return type == BLOB_FIELD_TYPE_STRING ? StoreVariable(blob, index, text, n + 1, 1)
                                              : StoreWidened(blob, index, text, n);
    }
    return StoreNumeric<Tok>(blob->buffer + e.dataOffset, type, v) ? BLOB_STATUS_SUCCESS
                                                                   : BLOB_STATUS_UNHANDLED_TYPE;
}

// SetXArray: the elements converted to the field's element type, the rest of the room padded.
template <typename Tok>
blob_status StoreArray(_BLOB_INFO* blob, uint64_t index, const typename Tok::type* values,
                       uint64_t count) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    const uint32_t type = EntryType(blob, e);
    if (!IsNumericArrayType(type)) return BLOB_STATUS_UNHANDLED_TYPE;
    const uint32_t element = ArrayElementSize(type);
    const uint64_t room = e.dataSize - 4;
    if (count > room / element) return BLOB_STATUS_BUFFER_TOO_SMALL;
    unsigned char* p = blob->buffer + e.dataOffset;
    StoreAt<uint32_t>(p, static_cast<uint32_t>(count));
    if (type == Tok::array) {
        std::memmove(p + 4, values, static_cast<size_t>(count * element));
    } else {
        const uint32_t scalar = ElementScalarType(type);
        for (uint64_t i = 0; i < count; ++i)
            (void)StoreNumeric<Tok>(p + 4 + i * element, scalar, values[i]);
    }
    std::memset(p + 4 + count * element, 0xFF, static_cast<size_t>(room - count * element));
    return BLOB_STATUS_SUCCESS;
}

// SetBinary: BINARY fields only, never grown.
blob_status StoreBinary(_BLOB_INFO* blob, uint64_t index, const unsigned char* data,
                        uint64_t size) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    if (EntryType(blob, e) != BLOB_FIELD_TYPE_BINARY || data == nullptr)
        return BLOB_STATUS_INVALID_PARAMETER;
    const uint64_t room = e.dataSize - 4;
    if (size > room) return BLOB_STATUS_BUFFER_TOO_SMALL;
    unsigned char* p = blob->buffer + e.dataOffset;
    StoreAt<uint32_t>(p, static_cast<uint32_t>(size));
    std::memmove(p + 4, data, static_cast<size_t>(size));
    std::memset(p + 4 + size, 0xFF, static_cast<size_t>(room - size));
    return BLOB_STATUS_SUCCESS;
}

// SetTimeStamp: TIMESTAMP fields only.
blob_status StoreTimeStamp(_BLOB_INFO* blob, uint64_t index, const _blob_timestamp& t) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    if (EntryType(blob, e) != BLOB_FIELD_TYPE_TIMESTAMP) return BLOB_STATUS_INVALID_PARAMETER;
    std::memcpy(blob->buffer + e.dataOffset, &t, sizeof t);
    return BLOB_STATUS_SUCCESS;
}

// The bytes of a nested blob, copied out first when it is the blob being written (its
// buffer would change under the store).
class NestedBytes {
  public:
    NestedBytes(const _BLOB_INFO* blob, const _BLOB_INFO* nested) noexcept
        : n_(UsedLength(nested)), copy_(blob == nested ? n_ : 0) {
        bytes_ = nested->buffer;
        if (blob == nested) {
            if (copy_.get() != nullptr) std::memcpy(copy_.get(), bytes_, n_);
            bytes_ = copy_.get();
        }
    }
    const unsigned char* bytes() const noexcept { return bytes_; }
    uint32_t size() const noexcept { return n_; }

  private:
    uint32_t n_;
    WorkArea<unsigned char, 1> copy_;
    const unsigned char* bytes_;
};

// SetBlob: BLOB fields only, grown as text is.
blob_status StoreBlob(_BLOB_INFO* blob, uint64_t index, const NestedBytes& nested) noexcept {
    if (EntryType(blob, blob->fieldIndex[index]) != BLOB_FIELD_TYPE_BLOB)
        return BLOB_STATUS_UNHANDLED_TYPE;
    if (nested.bytes() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    return StoreVariable(blob, index, nested.bytes(), nested.size());
}

// The frame of every Add: the exclusive lock, find or append a field of `type` and `size`,
// then `store(index)`.
template <typename Fn>
blob_status AddThen(_BLOB_INFO* blob, const char* name, blob_field_type type, uint64_t size,
                    Fn&& store) noexcept {
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    uint64_t index = 0;
    const blob_status s = AppendField(blob, name, type, size, &index, nullptr);
    if (s != BLOB_STATUS_SUCCESS) return s;
    return store(index);
}

}  // namespace

blob_status StoreText(_BLOB_INFO* blob, uint64_t index, const char* text,
                      uint64_t maxLength) noexcept {
    const BlobFieldEntry& e = blob->fieldIndex[index];
    const uint32_t type = EntryType(blob, e);
    const uint64_t n = TextLength(text, maxLength);
    switch (type) {
        case BLOB_FIELD_TYPE_STRING:
            return StoreStringBytes(blob, index, text, n);
        case BLOB_FIELD_TYPE_UTF16:
            return StoreWidened(blob, index, text, n);
        case BLOB_FIELD_TYPE_BOOL:
            blob->buffer[e.dataOffset] = IsTrueText(text, n);
            break;
        default: {
            if (type < BLOB_FIELD_TYPE_INT8 || type > BLOB_FIELD_TYPE_FLOAT64)
                return BLOB_STATUS_UNHANDLED_TYPE;
            // The parsers read up to a terminator: a text cut short gets one of its own.
            WorkArea<char, 64> cut(text[n] != 0 ? n + 1 : 0);
            const char* parsed = text;
            if (text[n] != 0) {
                if (cut.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
                std::memcpy(cut.get(), text, static_cast<size_t>(n));
                cut.get()[n] = 0;
                parsed = cut.get();
            }
            bool used = false;
            unsigned char* p = blob->buffer + e.dataOffset;
            if (type >= BLOB_FIELD_TYPE_FLOAT32)
                (void)StoreNumeric<TokF64>(p, type, ParseDouble(parsed, &used));
            else
                (void)StoreNumeric<TokI32>(p, type, ParseLong32(parsed, &used));
            break;
        }
    }
    return BLOB_STATUS_SUCCESS;
}

blob_status StoreUnits(_BLOB_INFO* blob, uint64_t index, const char16_t* text,
                       uint64_t maxLength) noexcept {
    const uint64_t units = UnitsLength(text, maxLength);
    if (EntryType(blob, blob->fieldIndex[index]) == BLOB_FIELD_TYPE_UTF16) {
        if (!InBuffer(blob, text)) return StoreVariable(blob, index, text, 2 * (units + 1), 2);
        WorkArea<char16_t, 128> copy(units);
        if (copy.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        std::memcpy(copy.get(), text, static_cast<size_t>(units * 2));
        return StoreVariable(blob, index, copy.get(), 2 * (units + 1), 2);
    }
    WorkArea<char, 8000> narrow(units + 1);
    if (narrow.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
    if (NarrowUnits(text, units, narrow.get(), units + 1) != BLOB_STATUS_SUCCESS)
        return BLOB_STATUS_CANNOT_CONVERT;
    return StoreText(blob, index, narrow.get(), units);
}

}  // namespace detail

using namespace detail;

// Set by number and by name share one body: `store(index)` under the exclusive lock.
#define TOLVEN_WRITE_PAIR(Number, ByName, In, ok, ...)           \
    blob_status Number(_BLOB_INFO* blob, uint64_t index, In) {   \
        return AtIndex<true>(blob, index, ok, __VA_ARGS__);      \
    }                                                            \
    blob_status ByName(_BLOB_INFO* blob, const char* name, In) { \
        return AtName<true>(blob, name, ok, __VA_ARGS__);        \
    }
#define TOLVEN_COMMA ,

#define TOLVEN_DEFINE_SCALAR_WRITES(T, C)                                                \
    TOLVEN_WRITE_PAIR(Set##T, SetByName##T, C value, true,                               \
                      [&](uint64_t i) { return StoreScalar<Tok##T>(blob, i, value); })   \
    blob_status Add##T(_BLOB_INFO* blob, const char* name, C value) {                    \
        return AddThen(blob, name, Tok##T::field, 0,                                     \
                       [&](uint64_t i) { return StoreScalar<Tok##T>(blob, i, value); }); \
    }
TOLVEN_BLOB_SCALAR_TOKENS(TOLVEN_DEFINE_SCALAR_WRITES)
#undef TOLVEN_DEFINE_SCALAR_WRITES

#define TOLVEN_DEFINE_ARRAY_WRITES(T, C)                                                      \
    TOLVEN_WRITE_PAIR(Set##T##Array, SetByName##T##Array,                                     \
                      const C* values TOLVEN_COMMA uint64_t count, values != nullptr,         \
                      [&](uint64_t i) { return StoreArray<Tok##T>(blob, i, values, count); }) \
    blob_status Add##T##Array(_BLOB_INFO* blob, const char* name, const C* values,            \
                              uint64_t count) {                                               \
        if (count > UINT32_MAX) return BLOB_STATUS_INVALID_PARAMETER;                         \
        return AddThen(blob, name, Tok##T::array, count * sizeof(C), [&](uint64_t i) {        \
            return values == nullptr ? BLOB_STATUS_INVALID_PARAMETER                          \
                                     : StoreArray<Tok##T>(blob, i, values, count);            \
        });                                                                                   \
    }
TOLVEN_BLOB_ARRAY_TOKENS(TOLVEN_DEFINE_ARRAY_WRITES)
#undef TOLVEN_DEFINE_ARRAY_WRITES

TOLVEN_WRITE_PAIR(SetStr, SetByNameStr, const char* text TOLVEN_COMMA uint64_t maxLength,
                  text != nullptr, [&](uint64_t i) { return StoreText(blob, i, text, maxLength); })
TOLVEN_WRITE_PAIR(SetUTF16, SetByNameUTF16, const char16_t* text TOLVEN_COMMA uint64_t maxLength,
                  text != nullptr, [&](uint64_t i) { return StoreUnits(blob, i, text, maxLength); })
TOLVEN_WRITE_PAIR(SetBinary, SetByNameBinary, unsigned char* data TOLVEN_COMMA uint64_t size, true,
                  [&](uint64_t i) { return StoreBinary(blob, i, data, size); })
TOLVEN_WRITE_PAIR(SetTimeStamp, SetByNameTimeStamp, const _blob_timestamp& value, true,
                  [&](uint64_t i) { return StoreTimeStamp(blob, i, value); })
TOLVEN_WRITE_PAIR(SetBlob, SetByNameBlob, const _BLOB_INFO* nested, nested != nullptr,
                  [&](uint64_t i) {
                      BlobReadGuard nestedGuard(nested);
                      return StoreBlob(blob, i, NestedBytes(blob, nested));
                  })
#undef TOLVEN_COMMA
#undef TOLVEN_WRITE_PAIR

namespace {
// AddStr and AddUTF16: append a text field with room for the text and store it. Text that
// lies in this blob's own buffer is copied first, since the append may move the buffer.
template <typename Ch>
blob_status AddText(_BLOB_INFO* blob, const char* name, const Ch* text, uint64_t maxLength) {
    static const Ch kEmpty[1] = {0};
    if (blob == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    if (text == nullptr) text = kEmpty;
    BlobWriteGuard guard(blob);
    uint64_t n = 0;
    while (n < maxLength && text[n] != 0)
        ++n;
    const bool inside = InBuffer(blob, text);
    WorkArea<Ch, 1> copy(inside ? n + 1 : 0);
    if (inside) {
        if (copy.get() == nullptr) return BLOB_STATUS_OUT_OF_MEMORY;
        std::memcpy(copy.get(), text, static_cast<size_t>(n * sizeof(Ch)));
        copy.get()[n] = 0;
        text = copy.get();
    }
    uint64_t index = 0;
    constexpr bool kWide = sizeof(Ch) == 2;
    const blob_status s =
        AppendField(blob, name, kWide ? BLOB_FIELD_TYPE_UTF16 : BLOB_FIELD_TYPE_STRING,
                    sizeof(Ch) * (n + 1), &index, nullptr);
    if (s != BLOB_STATUS_SUCCESS) return s;
    if constexpr (kWide)
        return StoreUnits(blob, index, text, n);
    else
        return StoreText(blob, index, text, n);
}
}  // namespace

blob_status AddStr(_BLOB_INFO* blob, const char* name, const char* text, uint64_t maxLength) {
    return AddText(blob, name, text, maxLength);
}

blob_status AddUTF16(_BLOB_INFO* blob, const char* name, const char16_t* text, uint64_t maxLength) {
    return AddText(blob, name, text, maxLength);
}

blob_status AddBinary(_BLOB_INFO* blob, const char* name, unsigned char* data, uint64_t size) {
    return AddThen(blob, name, BLOB_FIELD_TYPE_BINARY, size,
                   [&](uint64_t i) { return StoreBinary(blob, i, data, size); });
}

blob_status AddTimeStamp(_BLOB_INFO* blob, const char* name, const _blob_timestamp& value) {
    return AddThen(blob, name, BLOB_FIELD_TYPE_TIMESTAMP, sizeof value,
                   [&](uint64_t i) { return StoreTimeStamp(blob, i, value); });
}

blob_status AddBlob(_BLOB_INFO* blob, const char* name, const _BLOB_INFO* nested) {
    if (blob == nullptr || nested == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    BlobWriteGuard guard(blob);
    BlobReadGuard nestedGuard(nested);
    // Taken before the append, which changes the blob when it is its own nested blob.
    const NestedBytes bytes(blob, nested);
    uint64_t index = 0;
    const blob_status s =
        AppendField(blob, name, BLOB_FIELD_TYPE_BLOB, bytes.size(), &index, nullptr);
    if (s != BLOB_STATUS_SUCCESS) return s;
    return StoreBlob(blob, index, bytes);
}

blob_status AddNULL(_BLOB_INFO* blob, const char* name) {
    return AddThen(blob, name, BLOB_FIELD_TYPE_MAX, 0,
                   [](uint64_t) { return BLOB_STATUS_SUCCESS; });
}

}  // namespace TOLVEN
