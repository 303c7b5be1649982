// The version record that the build embeds in ELF files as a note, and its reader.
//
// The note is named "TOLVEN" with type 1 and lies in its own section,
// ".note.tolven.version". Its descriptor, little-endian:
//   bytes 0-51   the fixed record, laid out as VS_FIXEDFILEINFO;
//   bytes 52-55  the language word, then the code page word;
//   bytes 56-    string pairs, each key then value NUL-terminated, ended by an empty key
//                or by the end of the descriptor.
// The reader works on bytes from outside: every offset and size is checked against the
// file, and a file that does not parse is a file without a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace TOLVEN::platform::versionnote {

// The note's name and type.
inline constexpr char kName[] = "TOLVEN";
inline constexpr uint32_t kType = 1;
// Size of the fixed record, and of the fixed part of the descriptor.
inline constexpr size_t kFixedSize = 52;
inline constexpr size_t kHeaderSize = 56;
// Largest descriptor and largest note area that are read.
inline constexpr size_t kMaxDescriptor = 64 * 1024;
inline constexpr uint64_t kMaxNoteArea = 4 * 1024 * 1024;

// Reads exactly `size` bytes at `offset` into `out`; false when they are not all there.
using ReadAtFn = bool (*)(void* context, uint64_t offset, void* out, size_t size);

// Finds the version note in an ELF file of `fileSize` bytes read through `read`: the note
// sections first, then the note segments. False when there is none or the file is not a
// little-endian ELF file.
bool FindInElf(ReadAtFn read, void* context, uint64_t fileSize, std::vector<uint8_t>& descriptor);

// The same over a file held in memory.
bool FindInElfBuffer(const uint8_t* data, size_t size, std::vector<uint8_t>& descriptor);

// Finds `subBlock` in a descriptor: "\\" (the fixed record, 52 bytes),
// "\\VarFileInfo\\Translation" (4 bytes) or "\\StringFileInfo\\llllcccc\\Key" with the
// descriptor's own language and code page in hexadecimal (the string, its length counting
// the terminator). Names and hexadecimal digits ignore ASCII case.
bool Query(const uint8_t* descriptor, size_t size, const char* subBlock, const void** value,
           uint32_t* length);

}  // namespace TOLVEN::platform::versionnote
