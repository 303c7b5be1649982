// The configuration reader contract, its statuses and types, and the memory reader.
//
// A setting is addressed by a section name and an item name. A null or empty section means
// the default section ("default" for the file and memory readers). Readers are
// reference-counted heap objects: CreateObject gives the caller the first reference, and
// whoever stores a reader takes a reference of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tolven/refobj.h"

namespace TOLVEN {

// Result of almost every reader operation. The value 6 is not used.
enum [[nodiscard]] configreader_status : int32_t{
    configreader_success = 0,            // done
    configreader_io_error = 1,           // the store could not be opened, read or written
    configreader_invalid_parameter = 2,  // a null pointer, a zero size, or a bad boolean text
    configreader_not_found = 3,          // the section, the item or the index does not exist
    configreader_not_configured = 4,     // no file or key given yet, or no name derivable
    configreader_not_supported = 5,      // this reader does not offer this operation
    configreader_wrong_type = 7,         // the stored value cannot be given in the asked type
};

// The kind of store behind a reader (answer of GetType). The value 2 is not used.
enum configreader_type : int32_t {
    configreader_type_ini = 0,       // IniConfigReader and ExtConfigReader
    configreader_type_registry = 1,  // RegistryConfigReader
    configreader_type_memory = 3,    // MemoryConfigReader
};

// The one interface through which settings are read and written. Text is narrow and
// NUL-terminated; sizes of output buffers count the terminator. Enumeration is by index
// from 0; an index out of range gives configreader_not_found. Concrete readers are safe for
// concurrent use without external locking.
class ConfigReader : public ReferencedObj {
  public:
    // Reads a boolean.
    virtual configreader_status ReadBool(const char* section, const char* item, bool* value) = 0;
    // Reads a boolean as 0 or 1 through ReadBool; on failure *value is left alone.
    virtual configreader_status ReadBOOL(const char* section, const char* item, int* value);
    // Reads a binary block; *size is the room on entry and the byte count on return.
    virtual configreader_status ReadBinary(const char* section, const char* item,
                                           unsigned char* data, size_t* size) = 0;
    // Reads text, truncated to the room *size (terminator included); *size gets the length.
    virtual configreader_status ReadString(const char* section, const char* item, char* buffer,
                                           size_t* size) = 0;
    // Reads an unsigned decimal number; text with no leading digits is configreader_wrong_type.
    virtual configreader_status ReadUINT(const char* section, const char* item,
                                         unsigned int* value) = 0;
    // Reads a nested reader; `reader` must be null on entry and receives one reference.
    virtual configreader_status ReadConfigReader(const char* section, const char* item,
                                                 ConfigReader*& reader) = 0;
    // Writes a boolean.
    virtual configreader_status WriteBool(const char* section, const char* item, bool value) = 0;
    // Writes `value > 0` through WriteBool: a negative value is written as false.
    virtual configreader_status WriteBOOL(const char* section, const char* item, int value);
    // Writes a binary block.
    virtual configreader_status WriteBinary(const char* section, const char* item,
                                            unsigned char* data, size_t size) = 0;
    // Writes text.
    virtual configreader_status WriteString(const char* section, const char* item,
                                            const char* value) = 0;
    // Writes an unsigned number.
    virtual configreader_status WriteUINT(const char* section, const char* item,
                                          unsigned int value) = 0;
    // Stores a nested reader, which gets one reference.
    virtual configreader_status WriteConfigReader(const char* section, const char* item,
                                                  ConfigReader* reader) = 0;
    // Removes an item.
    virtual configreader_status DeleteItem(const char* section, const char* item) = 0;
    // Removes a section and all its items.
    virtual configreader_status DeleteSection(const char* section) = 0;
    // True if the section exists.
    virtual bool IsSectionPresent(const char* section) const = 0;
    // Copies the reader's name (a file, a key or a given name), truncated to `size`.
    virtual configreader_status GetReaderName(char* buffer, size_t size) const = 0;
    // The number of sections.
    virtual int GetNumSections() const = 0;
    // Copies the name of section `index`, truncated to `size`.
    virtual configreader_status GetSectionName(int index, char* buffer, size_t size) const = 0;
    // True if the item exists in the section.
    virtual bool IsItemPresent(const char* section, const char* item) const = 0;
    // The number of items of the section; 0 if it does not exist.
    virtual int GetNumItems(const char* section) const = 0;
    // Copies the name of item `index` of the section, truncated to `size`.
    virtual configreader_status GetItemName(const char* section, int index, char* buffer,
                                            size_t size) const = 0;
    // The kind of store behind the reader.
    virtual configreader_type GetType() = 0;
    // True if the reader has a store it can read.
    virtual bool IsConfigurationPresent() const = 0;

  protected:
    ConfigReader() noexcept = default;
    ~ConfigReader() override;
};

// True if `name` contains "Password" or "Pwd", ignoring ASCII case. Such items are masked
// when shown and never followed as embedded files. Null or empty gives false.
bool IsConfigFieldProtected(const char* name);

namespace detail {
// The section a reader uses for `section`: "default" when it is null or empty.
inline const char* ConfigSectionName(const char* section) noexcept {
    return (section == nullptr || section[0] == '\0') ? "default" : section;
}
// Compares two names byte by byte as unsigned, folding A to Z to lower case; <0, 0 or >0.
int CompareConfigNames(const char* a, const char* b) noexcept;
// Unsigned 32-bit decimal conversion in the manner of strtoul: leading white space, an
// optional sign ('-' negates modulo 2^32), digits; overflow saturates at 4294967295. The
// result lands in *value in any case; returns false when no digit was used.
bool ParseConfigUINT(const char* text, unsigned int* value) noexcept;
}  // namespace detail

class MemoryConfigReaderImpl;

// A reader whose store is in memory: sections and items found without regard to ASCII
// case and enumerated in folded-name order. Every value is kept as text (booleans as "true"
// or "false", numbers as digits), or as a nested reader holding one reference. Binary
// blocks are not supported. Safe for concurrent use without external locking: one
// recursive lock serialises the store.
class MemoryConfigReader : public ConfigReader {
  public:
    // A new empty reader with one reference, owned by the caller.
    static MemoryConfigReader* CreateObject();
    // An empty reader with one reference; use Release to destroy it.
    MemoryConfigReader();

    // Names the reader; null names it "Unnamed".
    void SetReaderName(const char* name);

    configreader_status ReadBool(const char* section, const char* item, bool* value) override;
    configreader_status ReadBinary(const char* section, const char* item, unsigned char* data,
                                   size_t* size) override;
    configreader_status ReadString(const char* section, const char* item, char* buffer,
                                   size_t* size) override;
    configreader_status ReadUINT(const char* section, const char* item,
                                 unsigned int* value) override;
    configreader_status ReadConfigReader(const char* section, const char* item,
                                         ConfigReader*& reader) override;
    configreader_status WriteBool(const char* section, const char* item, bool value) override;
    configreader_status WriteBinary(const char* section, const char* item, unsigned char* data,
                                    size_t size) override;
    configreader_status WriteString(const char* section, const char* item,
                                    const char* value) override;
    // Stored as a signed 32-bit number: 4294967295 reads back as text "-1", as number
    // 4294967295.
    configreader_status WriteUINT(const char* section, const char* item,
                                  unsigned int value) override;
    // Nests `reader` (one reference taken; any reader type). A reader the item held before
    // keeps the reference it had: a nested reader is written once. A reader must not hold
    // itself, directly or through a chain, or it is never freed. Null gives
    // configreader_invalid_parameter.
    configreader_status WriteConfigReader(const char* section, const char* item,
                                          ConfigReader* reader) override;
    configreader_status DeleteItem(const char* section, const char* item) override;
    configreader_status DeleteSection(const char* section) override;
    bool IsSectionPresent(const char* section) const override;
    configreader_status GetReaderName(char* buffer, size_t size) const override;
    int GetNumSections() const override;
    configreader_status GetSectionName(int index, char* buffer, size_t size) const override;
    bool IsItemPresent(const char* section, const char* item) const override;
    int GetNumItems(const char* section) const override;
    configreader_status GetItemName(const char* section, int index, char* buffer,
                                    size_t size) const override;
    // Gives configreader_type_memory.
    configreader_type GetType() override;
    // Always true: an empty memory reader is still a configuration.
    bool IsConfigurationPresent() const override;

  protected:
    // Releases every nested reader and frees the store.
    ~MemoryConfigReader() override;

  private:
    MemoryConfigReaderImpl* impl_;
};

}  // namespace TOLVEN
