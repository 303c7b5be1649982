#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/process.h"
#include "platform/versionnote.h"
#include "tolven/versioninfo.h"

using namespace TOLVEN;
namespace note = TOLVEN::platform::versionnote;

namespace {

std::string LibraryPath() {
    std::string path;
    EXPECT_TRUE(platform::GetLibraryModulePath(path));
    return path;
}

std::string ProductName(const VersionInfo& info) {
    char buffer[128];
    unsigned int size = sizeof buffer;
    return info.GetProductName(buffer, &size) ? std::string(buffer, size) : "<none>";
}

// A temporary directory for one test.
struct TempDir {
    std::filesystem::path path = std::filesystem::temp_directory_path() /
                                 ("tolven_version_" + std::to_string(platform::CurrentProcessId()));
    TempDir() { std::filesystem::create_directories(path); }
    ~TempDir() { std::filesystem::remove_all(path); }
};

std::vector<uint8_t> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void Put(std::vector<uint8_t>& bytes, size_t at, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; ++i)
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

// Appends one note, its name and descriptor each padded to 4 bytes.
void AppendNote(std::vector<uint8_t>& area, const std::string& name, uint32_t type,
                const std::vector<uint8_t>& descriptor) {
    const size_t at = area.size();
    const size_t nameSize = name.size() + 1;
    area.resize(at + 12 + (nameSize + 3) / 4 * 4 + (descriptor.size() + 3) / 4 * 4, 0);
    Put(area, at, nameSize, 4);
    Put(area, at + 4, descriptor.size(), 4);
    Put(area, at + 8, type, 4);
    std::memcpy(&area[at + 12], name.c_str(), nameSize);
    std::copy(descriptor.begin(), descriptor.end(),
              area.begin() + static_cast<std::ptrdiff_t>(at + 12 + (nameSize + 3) / 4 * 4));
}

// A small 64-bit little-endian ELF file, the same on every platform: the header, a load
// segment and a note segment, the notes (another vendor's, then the version note), and the
// section headers at the end, the last of them over the notes as a note section.
struct ElfImage {
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> descriptor;
    size_t notesEnd = 0;
};

ElfImage MakeElfImage() {
    ElfImage elf;
    std::vector<uint8_t>& d = elf.descriptor;
    d.assign(note::kHeaderSize, 0);
    Put(d, 0, kVersionSignature, 4);
    Put(d, 52, 0x0409, 2);  // language
    Put(d, 54, 0x04E4, 2);  // code page
    const char table[] = "ProductName\0Svc\0";
    d.insert(d.end(), table, table + sizeof table);  // the empty key after it ends the table

    std::vector<uint8_t> notes;
    AppendNote(notes, "GNU", 3, std::vector<uint8_t>(20, 0xAB));
    AppendNote(notes, note::kName, note::kType, d);

    constexpr size_t kHeader = 64, kSegment = 56, kSection = 64;
    const size_t notesAt = kHeader + 2 * kSegment;
    elf.notesEnd = notesAt + notes.size();
    const size_t sectionsAt = (elf.notesEnd + 7) / 8 * 8;
    std::vector<uint8_t>& b = elf.bytes;
    b.assign(sectionsAt + 3 * kSection, 0);
    const uint8_t ident[] = {0x7F, 'E', 'L', 'F', 2, 1, 1};  // 64-bit, little-endian
    std::copy(std::begin(ident), std::end(ident), b.begin());
    Put(b, 16, 3, 2);           // a shared object
    Put(b, 18, 62, 2);          // x86-64
    Put(b, 20, 1, 4);           // version
    Put(b, 32, kHeader, 8);     // program headers
    Put(b, 40, sectionsAt, 8);  // section headers
    Put(b, 52, kHeader, 2);     // header size
    Put(b, 54, kSegment, 2);
    Put(b, 56, 2, 2);
    Put(b, 58, kSection, 2);
    Put(b, 60, 3, 2);
    // Segments: a load segment over the whole file, then the notes.
    Put(b, kHeader, 1, 4);
    Put(b, kHeader + 32, b.size(), 8);
    Put(b, kHeader + 48, 4096, 8);
    const size_t noteSegment = kHeader + kSegment;
    Put(b, noteSegment, 4, 4);
    Put(b, noteSegment + 8, notesAt, 8);
    Put(b, noteSegment + 32, notes.size(), 8);
    Put(b, noteSegment + 48, 4, 8);
    // Sections: the null one, a program data section, the notes.
    const size_t data = sectionsAt + kSection;
    Put(b, data + 4, 1, 4);
    Put(b, data + 24, kHeader, 8);
    Put(b, data + 32, notesAt - kHeader, 8);
    const size_t noteSection = data + kSection;
    Put(b, noteSection + 4, 7, 4);
    Put(b, noteSection + 24, notesAt, 8);
    Put(b, noteSection + 32, notes.size(), 8);
    Put(b, noteSection + 48, 4, 8);
    std::copy(notes.begin(), notes.end(), b.begin() + static_cast<std::ptrdiff_t>(notesAt));
    return elf;
}

}  // namespace

TEST(VersionInfo, ReadsTheLibraryRecord) {
    VersionInfo info;
    ASSERT_TRUE(info.Initialize(LibraryPath().c_str()));
    EXPECT_EQ(ProductName(info), "TOLVEN");
    char buffer[64];
    unsigned int size = sizeof buffer;
    ASSERT_TRUE(info.GetProductVersion(buffer, &size));
    EXPECT_EQ(std::string(buffer, size), TOLVEN_TEST_VERSION);
    size = sizeof buffer;
    ASSERT_TRUE(info.GetCopyRightInfo(buffer, &size));
    EXPECT_EQ(std::string(buffer, size), "Copyright (C) 2026 The TOLVEN developers");
    size = 4;
    ASSERT_TRUE(info.GetCopyRightInfo(buffer, &size));
    EXPECT_EQ(size, 3u);
    EXPECT_STREQ(buffer, "Cop");

    // The base name of a loaded library is found as loaded, whatever the current directory.
    VersionInfo byName;
    const std::string base = std::filesystem::path(LibraryPath()).filename().string();
    ASSERT_TRUE(byName.Initialize(base.c_str()));
    EXPECT_EQ(ProductName(byName), "TOLVEN");
}

TEST(VersionInfo, OwnFileDefaultModuleAndCopies) {
    VersionInfo own;
    ASSERT_TRUE(own.Initialize(nullptr));
    EXPECT_EQ(ProductName(own), "unittest_tools");
    char buffer[32];
    unsigned int size = sizeof buffer;
    ASSERT_TRUE(own.GetProductVersion(buffer, &size));
    EXPECT_STREQ(buffer, "1.2.3.65535");

    VersionInfo::SetDefaultModule(LibraryPath().c_str());
    VersionInfo fromDefault;
    EXPECT_TRUE(fromDefault.Initialize(""));
    VersionInfo::SetDefaultModule(nullptr);
    EXPECT_EQ(ProductName(fromDefault), "TOLVEN");

    // Copies own their block: they outlive and survive the original.
    auto* original = new VersionInfo(own);
    VersionInfo copy(*original);
    VersionInfo assigned;
    assigned = *original;
    ASSERT_TRUE(original->Initialize(LibraryPath().c_str()));
    EXPECT_EQ(ProductName(*original), "TOLVEN");
    delete original;
    EXPECT_EQ(ProductName(copy), "unittest_tools");
    EXPECT_EQ(ProductName(assigned), "unittest_tools");
}

TEST(VersionInfo, FilesWithoutARecordAreNotAvailable) {
    TempDir dir;
    // Named as this platform names libraries, so that each file is read as it is.
    const std::string extension = std::filesystem::path(LibraryPath()).extension().string();
    const std::string plain = (dir.path / ("plain" + extension)).string();
    std::ofstream(plain) << "not a library";
    // The library's file with its record cut off.
    const std::vector<uint8_t> library = ReadAll(LibraryPath());
    const std::string cut = (dir.path / ("cut" + extension)).string();
    std::ofstream(cut, std::ios::binary).write(reinterpret_cast<const char*>(library.data()), 200);

    for (const std::string& file : {plain, cut, (dir.path / ("missing" + extension)).string()}) {
        VersionInfo info;
        EXPECT_FALSE(info.Initialize(file.c_str())) << file;
        VS_FIXEDFILEINFO fixed{};
        EXPECT_FALSE(info.GetFixedFileInfo(fixed));
    }
    // A failed Initialize forgets an earlier record.
    VersionInfo info;
    ASSERT_TRUE(info.Initialize(LibraryPath().c_str()));
    EXPECT_FALSE(info.Initialize(plain.c_str()));
    EXPECT_EQ(ProductName(info), "<none>");
}

TEST(VersionNote, EveryPrefixOfAFileParsesSafely) {
    const ElfImage elf = MakeElfImage();
    std::vector<uint8_t> whole;
    ASSERT_TRUE(note::FindInElfBuffer(elf.bytes.data(), elf.bytes.size(), whole));
    EXPECT_EQ(whole, elf.descriptor);

    // The sections follow the contents, so no prefix keeps the note findable through them;
    // the note segment is the fallback from the end of the notes on.
    std::vector<uint8_t> found;
    for (size_t n = 0; n < elf.bytes.size(); ++n) {
        const bool ok = note::FindInElfBuffer(elf.bytes.data(), n, found);
        EXPECT_EQ(ok, n >= elf.notesEnd) << n;
        if (ok) {
            EXPECT_EQ(found, elf.descriptor) << n;
        } else {
            EXPECT_TRUE(found.empty()) << n;
        }
    }
}

TEST(VersionNote, QueriesFollowTheRecordLayout) {
    std::vector<uint8_t> d(note::kHeaderSize, 0);
    std::memcpy(&d[52], "\x09\x04\xE4\x04", 4);  // language and code page
    const char table[] = "ProductName\0Svc\0Empty\0\0LegalCopyright\0(c)";
    d.insert(d.end(), table, table + sizeof table);  // the terminator of (c) included
    const void* value = nullptr;
    uint32_t length = 0;
    ASSERT_TRUE(note::Query(d.data(), d.size(), "\\", &value, &length));
    EXPECT_EQ(value, d.data());
    EXPECT_EQ(length, 52u);
    ASSERT_TRUE(note::Query(d.data(), d.size(), "\\StringFileInfo\\040904E4\\productname", &value,
                            &length));
    EXPECT_STREQ(static_cast<const char*>(value), "Svc");
    EXPECT_EQ(length, 4u);
    ASSERT_TRUE(
        note::Query(d.data(), d.size(), "\\StringFileInfo\\040904e4\\Empty", &value, &length));
    EXPECT_EQ(length, 1u);
    ASSERT_TRUE(note::Query(d.data(), d.size(), "\\StringFileInfo\\040904e4\\LegalCopyright",
                            &value, &length));
    EXPECT_STREQ(static_cast<const char*>(value), "(c)");

    EXPECT_FALSE(note::Query(d.data(), d.size(), "\\StringFileInfo\\040904b0\\ProductName", &value,
                             &length));
    EXPECT_FALSE(note::Query(d.data(), d.size(), "\\StringFileInfo\\0409zz\\x", &value, &length));
    // A table whose last value runs off the end is not read past it.
    EXPECT_FALSE(note::Query(d.data(), d.size() - 1, "\\StringFileInfo\\040904e4\\LegalCopyright",
                             &value, &length));
    EXPECT_FALSE(note::Query(d.data(), note::kHeaderSize - 1, "\\", &value, &length));
}
