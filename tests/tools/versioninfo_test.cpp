#include <gtest/gtest.h>

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

    VS_FIXEDFILEINFO fixed{};
    ASSERT_TRUE(info.GetFixedFileInfo(fixed));
    EXPECT_EQ(fixed.dwSignature, kVersionSignature);
    EXPECT_EQ(fixed.dwFileType, 2u);
    EXPECT_EQ(fixed.dwFileVersionMS, fixed.dwProductVersionMS);

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
    VS_FIXEDFILEINFO fixed{};
    ASSERT_TRUE(own.GetFixedFileInfo(fixed));
    EXPECT_EQ(fixed.dwFileType, 1u);
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
    VersionInfo& alias = assigned;
    assigned = alias;
    EXPECT_EQ(ProductName(assigned), "unittest_tools");
}

TEST(VersionInfo, FilesWithoutARecordAreNotAvailable) {
    TempDir dir;
    const std::string plain = (dir.path / "plain.so").string();
    std::ofstream(plain) << "not an ELF file";
    // An ELF file with the note's bytes cut off.
    const std::vector<uint8_t> library = ReadAll(LibraryPath());
    const std::string cut = (dir.path / "cut.so").string();
    std::ofstream(cut, std::ios::binary).write(reinterpret_cast<const char*>(library.data()), 200);

    for (const std::string& file : {plain, cut, (dir.path / "missing.so").string()}) {
        VersionInfo info;
        EXPECT_FALSE(info.Initialize(file.c_str())) << file;
        char buffer[16] = "junk";
        unsigned int size = sizeof buffer;
        EXPECT_FALSE(info.GetProductName(buffer, &size));
        EXPECT_FALSE(info.GetProductVersion(buffer, &size));
        VS_FIXEDFILEINFO fixed{};
        EXPECT_FALSE(info.GetFixedFileInfo(fixed));
    }
    // A failed Initialize forgets an earlier record.
    VersionInfo info;
    ASSERT_TRUE(info.Initialize(LibraryPath().c_str()));
    EXPECT_FALSE(info.Initialize(plain.c_str()));
    EXPECT_EQ(ProductName(info), "<none>");
}

TEST(VersionNote, EveryPrefixOfARealFileParsesSafely) {
    const std::vector<uint8_t> library = ReadAll(LibraryPath());
    std::vector<uint8_t> whole;
    ASSERT_TRUE(note::FindInElfBuffer(library.data(), library.size(), whole));
    // The library's sections follow its contents, so no prefix keeps the note findable
    // through them; the note segment is the fallback until its bytes are cut.
    std::vector<uint8_t> found;
    size_t firstFound = 0;
    for (size_t n = 0; n < 4096 && n < library.size(); ++n) {
        if (note::FindInElfBuffer(library.data(), n, found)) {
            if (firstFound == 0) firstFound = n;
            EXPECT_EQ(found, whole);
        } else {
            EXPECT_TRUE(found.empty());
        }
    }
    EXPECT_NE(firstFound, 0u);
}

TEST(VersionNote, QueriesFollowTheRecordLayout) {
    std::vector<uint8_t> d(note::kHeaderSize, 0);
    d[52] = 0x09;
    d[53] = 0x04;
    d[54] = 0xE4;
    d[55] = 0x04;
    const char table[] = "ProductName\0Svc\0Empty\0\0LegalCopyright\0(c)";
    d.insert(d.end(), table, table + sizeof table);  // the terminator of (c) included
    const void* value = nullptr;
    uint32_t length = 0;
    ASSERT_TRUE(note::Query(d.data(), d.size(), "\\", &value, &length));
    EXPECT_EQ(value, d.data());
    EXPECT_EQ(length, 52u);
    ASSERT_TRUE(note::Query(d.data(), d.size(), "\\varfileinfo\\TRANSLATION", &value, &length));
    EXPECT_EQ(length, 4u);
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
    EXPECT_FALSE(
        note::Query(d.data(), d.size(), "\\StringFileInfo\\040904e4\\Missing", &value, &length));
    EXPECT_FALSE(note::Query(d.data(), d.size(), "\\StringFileInfo\\0409zz\\x", &value, &length));
    EXPECT_FALSE(note::Query(d.data(), d.size(), "\\Other", &value, &length));
    // A table whose last value runs off the end is not read past it.
    EXPECT_FALSE(note::Query(d.data(), d.size() - 1, "\\StringFileInfo\\040904e4\\LegalCopyright",
                             &value, &length));
    EXPECT_FALSE(note::Query(d.data(), note::kHeaderSize - 1, "\\", &value, &length));
}
