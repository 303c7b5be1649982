// Pure code over bytes: built for every platform, so that its tests run everywhere.
#include "platform/versionnote.h"

#include <cstring>

namespace TOLVEN::platform::versionnote {
namespace {

constexpr uint32_t kShtNote = 7;
constexpr uint32_t kPtNote = 4;
constexpr uint32_t kMaxSections = 65536;
constexpr uint32_t kMaxSegments = 65536;

uint16_t Le16(const uint8_t* p) noexcept {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t Le32(const uint8_t* p) noexcept {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
uint64_t Le64(const uint8_t* p) noexcept {
    return static_cast<uint64_t>(Le32(p)) | (static_cast<uint64_t>(Le32(p + 4)) << 32);
}

// True when [offset, offset + size) lies inside a file of `fileSize` bytes.
bool InFile(uint64_t offset, uint64_t size, uint64_t fileSize) noexcept {
    return offset <= fileSize && size <= fileSize - offset;
}

uint64_t AlignUp(uint64_t value, uint64_t alignment) noexcept {
    return (value + alignment - 1) & ~(alignment - 1);
}

// Scans one note area for the version note; `alignment` is 4 or 8.
bool ScanNotes(const uint8_t* area, uint64_t size, uint64_t alignment,
               std::vector<uint8_t>& descriptor) {
    uint64_t pos = 0;
    while (size - pos >= 12) {
        const uint64_t nameSize = Le32(area + pos);
        const uint64_t descSize = Le32(area + pos + 4);
        const uint32_t type = Le32(area + pos + 8);
        const uint64_t nameAt = pos + 12;
        const uint64_t descAt = nameAt + AlignUp(nameSize, alignment);
        if (descAt > size || descSize > size - descAt) return false;
        if (nameSize == sizeof kName && type == kType &&
            std::memcmp(area + nameAt, kName, sizeof kName) == 0) {
            if (descSize < kHeaderSize || descSize > kMaxDescriptor) return false;
            descriptor.assign(area + descAt, area + descAt + descSize);
            return true;
        }
        const uint64_t next = descAt + AlignUp(descSize, alignment);
        if (next > size) return false;
        pos = next;
    }
    return false;
}

// Reads one note area of the file and scans it.
bool ScanArea(ReadAtFn read, void* context, uint64_t fileSize, uint64_t offset, uint64_t size,
              uint64_t alignment, std::vector<uint8_t>& descriptor) {
    if (size < 12 || size > kMaxNoteArea || !InFile(offset, size, fileSize)) return false;
    std::vector<uint8_t> area(static_cast<size_t>(size));
    if (!read(context, offset, area.data(), area.size())) return false;
    return ScanNotes(area.data(), size, alignment == 8 ? 8 : 4, descriptor);
}

struct Layout {
    bool is64;
    uint64_t shoff, phoff;
    uint32_t shentsize, shnum, phentsize, phnum;
};

bool ReadLayout(ReadAtFn read, void* context, uint64_t fileSize, Layout& layout) {
    uint8_t header[64];
    if (!InFile(0, 52, fileSize) || !read(context, 0, header, 52)) return false;
    if (header[0] != 0x7F || header[1] != 'E' || header[2] != 'L' || header[3] != 'F') {
        return false;
    }
    if (header[5] != 1) return false;  // little-endian only
    if (header[4] == 2) {
        if (!InFile(0, 64, fileSize) || !read(context, 0, header, 64)) return false;
        layout.is64 = true;
        layout.phoff = Le64(header + 32);
        layout.shoff = Le64(header + 40);
        layout.phentsize = Le16(header + 54);
        layout.phnum = Le16(header + 56);
        layout.shentsize = Le16(header + 58);
        layout.shnum = Le16(header + 60);
    } else if (header[4] == 1) {
        layout.is64 = false;
        layout.phoff = Le32(header + 28);
        layout.shoff = Le32(header + 32);
        layout.phentsize = Le16(header + 42);
        layout.phnum = Le16(header + 44);
        layout.shentsize = Le16(header + 46);
        layout.shnum = Le16(header + 48);
    } else {
        return false;
    }
    return true;
}

bool FindInSections(ReadAtFn read, void* context, uint64_t fileSize, Layout& layout,
                    std::vector<uint8_t>& descriptor) {
    const uint32_t entry = layout.is64 ? 64 : 40;
    if (layout.shoff == 0 || layout.shentsize < entry) return false;
    uint8_t sh[64];
    uint64_t count = layout.shnum;
    if (count == 0) {
        // Extended numbering: the count is in the size field of section 0.
        if (!InFile(layout.shoff, entry, fileSize) || !read(context, layout.shoff, sh, entry)) {
            return false;
        }
        count = layout.is64 ? Le64(sh + 32) : Le32(sh + 20);
    }
    if (count > kMaxSections) count = kMaxSections;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t at = layout.shoff + i * layout.shentsize;
        if (at < layout.shoff || !InFile(at, entry, fileSize)) return false;
        if (!read(context, at, sh, entry)) return false;
        if (Le32(sh + 4) != kShtNote) continue;
        const uint64_t offset = layout.is64 ? Le64(sh + 24) : Le32(sh + 16);
        const uint64_t size = layout.is64 ? Le64(sh + 32) : Le32(sh + 20);
        const uint64_t align = layout.is64 ? Le64(sh + 48) : Le32(sh + 32);
        if (ScanArea(read, context, fileSize, offset, size, align, descriptor)) return true;
    }
    return false;
}

bool FindInSegments(ReadAtFn read, void* context, uint64_t fileSize, Layout& layout,
                    std::vector<uint8_t>& descriptor) {
    const uint32_t entry = layout.is64 ? 56 : 32;
    if (layout.phoff == 0 || layout.phentsize < entry) return false;
    uint8_t ph[56];
    const uint64_t count = layout.phnum < kMaxSegments ? layout.phnum : kMaxSegments;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t at = layout.phoff + i * layout.phentsize;
        if (at < layout.phoff || !InFile(at, entry, fileSize)) return false;
        if (!read(context, at, ph, entry)) return false;
        if (Le32(ph) != kPtNote) continue;
        const uint64_t offset = layout.is64 ? Le64(ph + 8) : Le32(ph + 4);
        const uint64_t size = layout.is64 ? Le64(ph + 32) : Le32(ph + 16);
        const uint64_t align = layout.is64 ? Le64(ph + 48) : Le32(ph + 28);
        if (ScanArea(read, context, fileSize, offset, size, align, descriptor)) return true;
    }
    return false;
}

struct Buffer {
    const uint8_t* data;
    size_t size;
};

bool ReadBuffer(void* context, uint64_t offset, void* out, size_t size) {
    const auto* buffer = static_cast<const Buffer*>(context);
    if (!InFile(offset, size, buffer->size)) return false;
    std::memcpy(out, buffer->data + offset, size);
    return true;
}

// Length of the text at `p`, looking at no more than `limit` bytes.
size_t BoundedLength(const char* p, size_t limit) noexcept {
    const void* end = std::memchr(p, '\0', limit);
    return end == nullptr ? limit : static_cast<size_t>(static_cast<const char*>(end) - p);
}

char Fold(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

// If `text` starts with `prefix` ignoring case, gives the rest; else null.
const char* SkipPrefix(const char* text, const char* prefix) noexcept {
    for (; *prefix != '\0'; ++text, ++prefix) {
        if (Fold(*text) != Fold(*prefix)) return nullptr;
    }
    return text;
}

bool EqualFolded(const char* a, const char* b) noexcept {
    const char* rest = SkipPrefix(a, b);
    return rest != nullptr && *rest == '\0';
}

// Parses exactly `digits` hexadecimal digits.
bool ParseHex(const char* text, int digits, uint32_t* value) noexcept {
    uint32_t v = 0;
    for (int i = 0; i < digits; ++i) {
        const char c = Fold(text[i]);
        uint32_t d;
        if (c >= '0' && c <= '9') {
            d = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            d = static_cast<uint32_t>(c - 'a' + 10);
        } else {
            return false;
        }
        v = (v << 4) | d;
    }
    *value = v;
    return true;
}

}  // namespace

bool FindInElf(ReadAtFn read, void* context, uint64_t fileSize, std::vector<uint8_t>& descriptor) {
    descriptor.clear();
    if (read == nullptr) return false;
    Layout layout{};
    if (!ReadLayout(read, context, fileSize, layout)) return false;
    if (FindInSections(read, context, fileSize, layout, descriptor)) return true;
    descriptor.clear();
    if (FindInSegments(read, context, fileSize, layout, descriptor)) return true;
    descriptor.clear();
    return false;
}

bool FindInElfBuffer(const uint8_t* data, size_t size, std::vector<uint8_t>& descriptor) {
    Buffer buffer{data, data == nullptr ? 0 : size};
    return FindInElf(&ReadBuffer, &buffer, buffer.size, descriptor);
}

bool Query(const uint8_t* descriptor, size_t size, const char* subBlock, const void** value,
           uint32_t* length) {
    if (descriptor == nullptr || subBlock == nullptr || value == nullptr || length == nullptr ||
        size < kHeaderSize || size > kMaxDescriptor) {
        return false;
    }
    if (EqualFolded(subBlock, "\\")) {
        *value = descriptor;
        *length = static_cast<uint32_t>(kFixedSize);
        return true;
    }
    if (EqualFolded(subBlock, "\\VarFileInfo\\Translation")) {
        *value = descriptor + kFixedSize;
        *length = 4;
        return true;
    }
    const char* rest = SkipPrefix(subBlock, "\\StringFileInfo\\");
    if (rest == nullptr) return false;
    uint32_t language = 0, codePage = 0;
    if (!ParseHex(rest, 4, &language) || !ParseHex(rest + 4, 4, &codePage) || rest[8] != '\\') {
        return false;
    }
    if (language != Le16(descriptor + kFixedSize) || codePage != Le16(descriptor + 54)) {
        return false;
    }
    const char* key = rest + 9;
    // Walk the pairs; a key or value that runs off the end ends the table.
    size_t pos = kHeaderSize;
    while (pos < size) {
        const auto* entry = reinterpret_cast<const char*>(descriptor + pos);
        const size_t keyLength = BoundedLength(entry, size - pos);
        if (keyLength == 0 || keyLength == size - pos) return false;
        const size_t valueAt = pos + keyLength + 1;
        if (valueAt >= size) return false;
        const auto* text = reinterpret_cast<const char*>(descriptor + valueAt);
        const size_t valueLength = BoundedLength(text, size - valueAt);
        if (valueLength == size - valueAt) return false;
        if (EqualFolded(entry, key)) {
            *value = text;
            *length = static_cast<uint32_t>(valueLength + 1);
            return true;
        }
        pos = valueAt + valueLength + 1;
    }
    return false;
}

}  // namespace TOLVEN::platform::versionnote
