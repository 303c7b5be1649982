#include "tolven/versioninfo.h"

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/process.h"

namespace TOLVEN {

std::string VersionInfo::st_strDefaultModule;
QuickLock VersionInfo::st_csDefaultModule;

namespace {

// The longest module name that is read.
constexpr size_t kMaxModuleName = 258;

// Copies `length` bytes of `text` into `buffer` of `room` bytes, cut to fit; gives the
// length of the copy.
unsigned int CopyTruncated(const char* text, size_t length, char* buffer, unsigned int room) {
    const size_t n = length < room - 1u ? length : room - 1u;
    std::memcpy(buffer, text, n);
    buffer[n] = '\0';
    return static_cast<unsigned int>(n);
}

}  // namespace

VersionInfo::VersionInfo(const VersionInfo& other)
    : m_fixed(other.m_fixed),
      m_block(nullptr),
      m_blockSize(other.m_blockSize),
      m_language(other.m_language),
      m_codePage(other.m_codePage) {
    if (other.m_block != nullptr) {
        m_block = new uint8_t[m_blockSize];
        std::memcpy(m_block, other.m_block, m_blockSize);
    }
}

VersionInfo& VersionInfo::operator=(const VersionInfo& other) {
    if (this != &other) {
        VersionInfo copy(other);
        std::swap(m_fixed, copy.m_fixed);
        std::swap(m_block, copy.m_block);
        std::swap(m_blockSize, copy.m_blockSize);
        std::swap(m_language, copy.m_language);
        std::swap(m_codePage, copy.m_codePage);
    }
    return *this;
}

VersionInfo::~VersionInfo() {
    delete[] m_block;
}

void VersionInfo::Reset() {
    delete[] m_block;
    m_block = nullptr;
    m_blockSize = 0;
    m_fixed = VS_FIXEDFILEINFO{};
    m_language = 0;
    m_codePage = 1252;
}

void VersionInfo::SetDefaultModule(const char* module) {
    QuickLockGuard guard(st_csDefaultModule);
    st_strDefaultModule = module != nullptr ? module : "";
}

bool VersionInfo::Initialize(const char* module) {
    Reset();
    std::string name;
    if (module == nullptr || module[0] == '\0') {
        {
            QuickLockGuard guard(st_csDefaultModule);
            name = st_strDefaultModule;
        }
        if (name.empty() && !platform::GetOwnExecutablePath(name)) return false;
    } else {
        size_t length = 0;
        while (length < kMaxModuleName && module[length] != '\0')
            ++length;
        name.assign(module, length);
    }
    name = platform::VersionModuleFileName(name);

    std::vector<uint8_t> block;
    if (!platform::ReadFileVersionBlock(name, block) || block.empty() ||
        block.size() > 0xFFFFFFFFu) {
        return false;
    }
    const void* value = nullptr;
    uint32_t length = 0;
    if (!platform::QueryVersionValue(block.data(), block.size(), "\\", &value, &length) ||
        length < sizeof(VS_FIXEDFILEINFO)) {
        return false;
    }
    VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, value, sizeof fixed);
    if (!platform::QueryVersionValue(block.data(), block.size(), "\\VarFileInfo\\Translation",
                                     &value, &length) ||
        length < 4) {
        return false;
    }
    uint16_t words[2];
    std::memcpy(words, value, sizeof words);

    m_fixed = fixed;
    m_language = words[0];
    m_codePage = words[1];
    m_blockSize = static_cast<uint32_t>(block.size());
    m_block = new uint8_t[m_blockSize];
    std::memcpy(m_block, block.data(), m_blockSize);
    return true;
}

bool VersionInfo::GetFixedFileInfo(VS_FIXEDFILEINFO& info) const {
    if (m_block == nullptr) return false;
    info = m_fixed;
    return true;
}

bool VersionInfo::GetProductVersion(char* buffer, unsigned int* size) const {
    if (m_block == nullptr || buffer == nullptr || size == nullptr || *size == 0) return false;
    char text[48];
    const int n = std::snprintf(text, sizeof text, "%u.%u.%u.%u",
                                static_cast<unsigned>(m_fixed.dwProductVersionMS >> 16),
                                static_cast<unsigned>(m_fixed.dwProductVersionMS & 0xFFFF),
                                static_cast<unsigned>(m_fixed.dwProductVersionLS >> 16),
                                static_cast<unsigned>(m_fixed.dwProductVersionLS & 0xFFFF));
    *size = CopyTruncated(text, static_cast<size_t>(n), buffer, *size);
    return true;
}

bool VersionInfo::GetStringValue(const char* name, char* buffer, unsigned int* size) const {
    if (m_block == nullptr || buffer == nullptr || size == nullptr || *size == 0) return false;
    char query[128];
    std::snprintf(query, sizeof query, "\\StringFileInfo\\%04x%04x\\%s",
                  static_cast<unsigned>(m_language), static_cast<unsigned>(m_codePage), name);
    const void* value = nullptr;
    uint32_t length = 0;
    const char* text = "";
    size_t textLength = 0;
    if (platform::QueryVersionValue(m_block, m_blockSize, query, &value, &length) &&
        value != nullptr) {
        text = static_cast<const char*>(value);
        const void* end = std::memchr(text, '\0', length);
        textLength =
            end == nullptr ? length : static_cast<size_t>(static_cast<const char*>(end) - text);
    }
    *size = CopyTruncated(text, textLength, buffer, *size);
    return textLength != 0;
}

bool VersionInfo::GetProductName(char* buffer, unsigned int* size) const {
    return GetStringValue("ProductName", buffer, size);
}

bool VersionInfo::GetCopyRightInfo(char* buffer, unsigned int* size) const {
    return GetStringValue("LegalCopyright", buffer, size);
}

}  // namespace TOLVEN
