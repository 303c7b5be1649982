// Version records of modules.
//
// On Windows the record is the module's version resource. ELF files have no such resource:
// there the build embeds one as a note section (CMake function tolven_add_version_note),
// which Initialize reads back from the file. A file without a record is not available.
#pragma once

#include <cstdint>
#include <string>

#include "tolven/quicklock.h"

namespace TOLVEN {

// The fixed part of a version record, 52 bytes, laid out as the Windows structure of the
// same name. Plain value; not thread-safe.
struct VS_FIXEDFILEINFO {
    uint32_t dwSignature;         // 0xFEEF04BD
    uint32_t dwStrucVersion;      // 0x00010000
    uint32_t dwFileVersionMS;     // file version, first word high, second low
    uint32_t dwFileVersionLS;     // file version, third word high, fourth low
    uint32_t dwProductVersionMS;  // product version, first word high, second low
    uint32_t dwProductVersionLS;  // product version, third word high, fourth low
    uint32_t dwFileFlagsMask;
    uint32_t dwFileFlags;
    uint32_t dwFileOS;
    uint32_t dwFileType;  // 1 for an application, 2 for a library
    uint32_t dwFileSubtype;
    uint32_t dwFileDateMS;
    uint32_t dwFileDateLS;
};
static_assert(sizeof(VS_FIXEDFILEINFO) == 52, "VS_FIXEDFILEINFO is 52 bytes");

// The signature word of a fixed version record.
inline constexpr uint32_t kVersionSignature = 0xFEEF04BDu;

// The version record of one module file. Value semantics with a deep copy of the raw block.
// Objects are not thread-safe; the process-wide default module is guarded by its lock.
class VersionInfo {
  public:
    VersionInfo() = default;
    VersionInfo(const VersionInfo& other);
    VersionInfo& operator=(const VersionInfo& other);
    ~VersionInfo();

    // Reads the record of `module`. Null or empty takes the default module, or if none was
    // set the process's own file. A name is cut to 258 characters; one that does not name a
    // module file gets the platform's library form: "%s64.dll" on Windows when it contains
    // neither ".exe" nor ".dll"; "lib%s.so" on ELF systems when it contains neither ".so"
    // nor a '/'. A base name of a library loaded in the process is found as loaded. Gives
    // false when the file has no record (or no translation of at least 4 bytes).
    bool Initialize(const char* module);

    // Sets the module an empty Initialize reads; null or empty forgets it.
    static void SetDefaultModule(const char* module);

    // Copies the fixed record; false when not initialised.
    bool GetFixedFileInfo(VS_FIXEDFILEINFO& info) const;

    // Writes "%u.%u.%u.%u" from the product version words into `buffer` of *size bytes
    // (cut to fit); *size gets the length. False when not initialised.
    bool GetProductVersion(char* buffer, unsigned int* size) const;

    // Copies the "ProductName" string into `buffer` of *size bytes (cut to fit); *size gets
    // the length. A missing value gives an empty text, *size 0 and false.
    bool GetProductName(char* buffer, unsigned int* size) const;

    // The same for "LegalCopyright".
    bool GetCopyRightInfo(char* buffer, unsigned int* size) const;

  private:
    void Reset();
    bool GetStringValue(const char* name, char* buffer, unsigned int* size) const;

    VS_FIXEDFILEINFO m_fixed{};
    uint8_t* m_block = nullptr;
    uint32_t m_blockSize = 0;
    uint16_t m_language = 0;
    uint16_t m_codePage = 1252;

    static std::string st_strDefaultModule;
    static QuickLock st_csDefaultModule;
};

}  // namespace TOLVEN
