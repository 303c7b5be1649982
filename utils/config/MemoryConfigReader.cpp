#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "tolven/configreader.h"
#include "tolven/quicklock.h"

namespace TOLVEN {

namespace {

// Orders names byte by byte with A to Z folded to lower case. Transparent, so that look-ups
// by a caller's text need no temporary string.
struct FoldedNameLess {
    using is_transparent = void;
    bool operator()(const std::string& a, const std::string& b) const noexcept {
        return detail::CompareConfigNames(a.c_str(), b.c_str()) < 0;
    }
    bool operator()(const std::string& a, const char* b) const noexcept {
        return detail::CompareConfigNames(a.c_str(), b) < 0;
    }
    bool operator()(const char* a, const std::string& b) const noexcept {
        return detail::CompareConfigNames(a, b.c_str()) < 0;
    }
};

// Copies `text` into `buffer` of `size` bytes (size > 0), cut to fit, always terminated.
// Returns the number of bytes copied before the terminator.
size_t CopyTruncated(const std::string& text, char* buffer, size_t size) noexcept {
    const size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
    return n;
}

enum : int32_t { kItemText = 0, kItemReader = 1 };

}  // namespace

// One item: text, or a nested reader holding one reference.
struct MemoryConfigItem {
    std::string name;
    int32_t kind = kItemText;
    std::string text;
    ConfigReader* reader = nullptr;

    explicit MemoryConfigItem(const char* itemName) : name(itemName) {}
    ~MemoryConfigItem() {
        if (kind == kItemReader && reader != nullptr) reader->Release();
    }
    MemoryConfigItem(const MemoryConfigItem&) = delete;
    MemoryConfigItem& operator=(const MemoryConfigItem&) = delete;
};

// One section and its items in folded-name order.
struct MemoryConfigSection {
    std::string name;
    std::map<std::string, std::unique_ptr<MemoryConfigItem>, FoldedNameLess> items;

    explicit MemoryConfigSection(const char* sectionName) : name(sectionName) {}
};

// The store behind a MemoryConfigReader. Every member is used under `lock`.
class MemoryConfigReaderImpl {
  public:
    MemoryConfigReaderImpl() = default;
    virtual ~MemoryConfigReaderImpl() = default;
    MemoryConfigReaderImpl(const MemoryConfigReaderImpl&) = delete;
    MemoryConfigReaderImpl& operator=(const MemoryConfigReaderImpl&) = delete;

    // Declared first so that it is destroyed last, after every nested reader is released.
    QuickLock lock;
    std::string readerName;
    std::map<std::string, std::unique_ptr<MemoryConfigSection>, FoldedNameLess> sections;

    // The section, or null; creates nothing.
    MemoryConfigSection* FindSection(const char* section) const {
        auto it = sections.find(detail::ConfigSectionName(section));
        return it == sections.end() ? nullptr : it->second.get();
    }

    // The item, or null; creates nothing.
    MemoryConfigItem* FindItem(const char* section, const char* item) const {
        MemoryConfigSection* s = FindSection(section);
        if (s == nullptr) return nullptr;
        auto it = s->items.find(item);
        return it == s->items.end() ? nullptr : it->second.get();
    }

    // The item, created with its section when absent; null when memory runs out.
    MemoryConfigItem* FindOrCreateItem(const char* section, const char* item) noexcept {
        try {
            const char* sectionName = detail::ConfigSectionName(section);
            auto sit = sections.find(sectionName);
            if (sit == sections.end()) {
                sit = sections
                          .emplace(std::string(sectionName),
                                   std::make_unique<MemoryConfigSection>(sectionName))
                          .first;
            }
            auto& items = sit->second->items;
            auto iit = items.find(item);
            if (iit == items.end()) {
                iit = items.emplace(std::string(item), std::make_unique<MemoryConfigItem>(item))
                          .first;
            }
            return iit->second.get();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    // Replaces the text of an item, creating it when absent.
    configreader_status WriteText(const char* section, const char* item, const char* value) {
        QuickLockGuard guard(lock);
        MemoryConfigItem* entry = FindOrCreateItem(section, item);
        if (entry == nullptr) return configreader_io_error;
        if (entry->kind == kItemReader) return configreader_wrong_type;
        try {
            entry->text = value;
        } catch (const std::bad_alloc&) {
            return configreader_io_error;
        }
        return configreader_success;
    }
};

MemoryConfigReader* MemoryConfigReader::CreateObject() {
    return new MemoryConfigReader();
}

MemoryConfigReader::MemoryConfigReader() : impl_(new MemoryConfigReaderImpl()) {}

MemoryConfigReader::~MemoryConfigReader() {
    delete impl_;
}

void MemoryConfigReader::SetReaderName(const char* name) {
    QuickLockGuard guard(impl_->lock);
    impl_->readerName = name != nullptr ? name : "Unnamed";
}

configreader_status MemoryConfigReader::ReadBool(const char* section, const char* item,
                                                 bool* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigItem* entry = impl_->FindItem(section, item);
    if (entry == nullptr) return configreader_not_found;
    if (entry->kind == kItemReader) return configreader_wrong_type;
    const char* text = entry->text.c_str();
    if (detail::CompareConfigNames(text, "true") == 0 || std::strcmp(text, "1") == 0) {
        *value = true;
    } else if (detail::CompareConfigNames(text, "false") == 0 || std::strcmp(text, "0") == 0) {
        *value = false;
    } else {
        return configreader_invalid_parameter;
    }
    return configreader_success;
}

configreader_status MemoryConfigReader::ReadBinary(const char*, const char*, unsigned char*,
                                                   size_t*) {
    return configreader_not_supported;
}

configreader_status MemoryConfigReader::ReadString(const char* section, const char* item,
                                                   char* buffer, size_t* size) {
    if (item == nullptr || buffer == nullptr || size == nullptr || *size == 0) {
        return configreader_invalid_parameter;
    }
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigItem* entry = impl_->FindItem(section, item);
    if (entry == nullptr) return configreader_not_found;
    if (entry->kind == kItemReader) return configreader_wrong_type;
    *size = CopyTruncated(entry->text, buffer, *size);
    return configreader_success;
}

configreader_status MemoryConfigReader::ReadUINT(const char* section, const char* item,
                                                 unsigned int* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigItem* entry = impl_->FindItem(section, item);
    if (entry == nullptr) return configreader_not_found;
    if (entry->kind == kItemReader) return configreader_wrong_type;
    return detail::ParseConfigUINT(entry->text.c_str(), value) ? configreader_success
                                                               : configreader_wrong_type;
}

configreader_status MemoryConfigReader::ReadConfigReader(const char* section, const char* item,
                                                         ConfigReader*& reader) {
    if (item == nullptr || reader != nullptr) return configreader_invalid_parameter;
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigItem* entry = impl_->FindItem(section, item);
    if (entry == nullptr) return configreader_not_found;
    if (entry->kind != kItemReader || entry->reader == nullptr) return configreader_wrong_type;
    entry->reader->AddRef();
    reader = entry->reader;
    return configreader_success;
}

configreader_status MemoryConfigReader::WriteBool(const char* section, const char* item,
                                                  bool value) {
    if (item == nullptr) return configreader_invalid_parameter;
    return impl_->WriteText(section, item, value ? "true" : "false");
}

configreader_status MemoryConfigReader::WriteBinary(const char*, const char*, unsigned char*,
                                                    size_t) {
    return configreader_not_supported;
}

configreader_status MemoryConfigReader::WriteString(const char* section, const char* item,
                                                    const char* value) {
    if (item == nullptr || value == nullptr) return configreader_invalid_parameter;
    return impl_->WriteText(section, item, value);
}

configreader_status MemoryConfigReader::WriteUINT(const char* section, const char* item,
                                                  unsigned int value) {
    if (item == nullptr) return configreader_invalid_parameter;
    // Rendered as a signed 32-bit number; ReadUINT's negation rule brings it back.
    char text[16];
    std::snprintf(text, sizeof text, "%" PRId32, static_cast<int32_t>(value));
    return impl_->WriteText(section, item, text);
}

configreader_status MemoryConfigReader::WriteConfigReader(const char* section, const char* item,
                                                          ConfigReader* reader) {
    if (item == nullptr || reader == nullptr) return configreader_invalid_parameter;
    // Both types are asked before the store is touched; any reader may be nested.
    (void)reader->GetType();
    (void)GetType();
    QuickLockGuard guard(impl_->lock);
    MemoryConfigItem* entry = impl_->FindOrCreateItem(section, item);
    if (entry == nullptr) return configreader_io_error;
    // A reader the item held before keeps its reference: a nested reader is written once.
    reader->AddRef();
    entry->kind = kItemReader;
    entry->reader = reader;
    entry->text.clear();
    return configreader_success;
}

configreader_status MemoryConfigReader::DeleteItem(const char* section, const char* item) {
    if (item == nullptr) return configreader_invalid_parameter;
    QuickLockGuard guard(impl_->lock);
    MemoryConfigSection* s = impl_->FindSection(section);
    if (s != nullptr) {
        auto it = s->items.find(item);
        if (it != s->items.end()) s->items.erase(it);
    }
    return configreader_success;
}

configreader_status MemoryConfigReader::DeleteSection(const char* section) {
    QuickLockGuard guard(impl_->lock);
    auto it = impl_->sections.find(detail::ConfigSectionName(section));
    if (it != impl_->sections.end()) impl_->sections.erase(it);
    return configreader_success;
}

bool MemoryConfigReader::IsSectionPresent(const char* section) const {
    QuickLockGuard guard(impl_->lock);
    return impl_->FindSection(section) != nullptr;
}

configreader_status MemoryConfigReader::GetReaderName(char* buffer, size_t size) const {
    if (size == 0) return configreader_success;
    if (buffer == nullptr) return configreader_invalid_parameter;
    QuickLockGuard guard(impl_->lock);
    CopyTruncated(impl_->readerName, buffer, size);
    return configreader_success;
}

int MemoryConfigReader::GetNumSections() const {
    QuickLockGuard guard(impl_->lock);
    return static_cast<int>(impl_->sections.size());
}

configreader_status MemoryConfigReader::GetSectionName(int index, char* buffer, size_t size) const {
    if (buffer == nullptr || size == 0) return configreader_invalid_parameter;
    buffer[0] = '\0';
    QuickLockGuard guard(impl_->lock);
    if (index < 0 || static_cast<size_t>(index) >= impl_->sections.size()) {
        return configreader_not_found;
    }
    auto it = impl_->sections.begin();
    std::advance(it, index);
    CopyTruncated(it->second->name, buffer, size);
    return configreader_success;
}

bool MemoryConfigReader::IsItemPresent(const char* section, const char* item) const {
    if (item == nullptr) return false;
    QuickLockGuard guard(impl_->lock);
    return impl_->FindItem(section, item) != nullptr;
}

int MemoryConfigReader::GetNumItems(const char* section) const {
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigSection* s = impl_->FindSection(section);
    return s == nullptr ? 0 : static_cast<int>(s->items.size());
}

configreader_status MemoryConfigReader::GetItemName(const char* section, int index, char* buffer,
                                                    size_t size) const {
    if (buffer == nullptr || size == 0) return configreader_invalid_parameter;
    buffer[0] = '\0';
    QuickLockGuard guard(impl_->lock);
    const MemoryConfigSection* s = impl_->FindSection(section);
    if (s == nullptr || index < 0 || static_cast<size_t>(index) >= s->items.size()) {
        return configreader_not_found;
    }
    auto it = s->items.begin();
    std::advance(it, index);
    CopyTruncated(it->second->name, buffer, size);
    return configreader_success;
}

configreader_type MemoryConfigReader::GetType() {
    return configreader_type_memory;
}

bool MemoryConfigReader::IsConfigurationPresent() const {
    return true;
}

}  // namespace TOLVEN
