// The INI file reader: sections of `key = value` lines in a file that is reloaded when it
// changes on disk, with constants taken from included files and safe saving.
#pragma once

#include <cstddef>
#include <map>

#include "tolven/configreader.h"
#include "tolven/fstring.h"

namespace TOLVEN {

class IniConfigReaderImpl;

// Reads and writes one INI file. Every operation first looks whether the file changed on
// disk and reloads it if so; a failing look ends the operation (statuses give it, counts
// give 0 or -1, questions give false). Reads run under a shared lock, writes under an
// exclusive one, and each write saves the file at once through "<file>.bak" and an atomic
// rename. Values may hold constants `$(NAME)` defined by the files of section "INCLUDE".
// Section and item names are compared ignoring ASCII case; a null or empty section means
// "default". Binary blocks and nested readers are not supported.
//
// Where the platform can report every change of the file (local file systems on Linux),
// an unchanged file costs no system call per operation: a process-wide thread applies the
// OS change events, and an operation looks at the file only after one arrived. A change
// made by another process is seen once that thread has taken the event, normally within
// microseconds; CheckFile always looks at the file itself. SetFileWatch(false) makes every
// operation look at the file.
// Safe for concurrent use without external locking.
class IniConfigReader : public ConfigReader {
  public:
    // Constants: names (the whole token, "$(" and ")" included) found ignoring case.
    using ConstMap =
        std::map<fstring<255, fstring_case_insensitive>, fstring<255, fstring_case_sensitive>>;

    // A new reader without a file, with one reference owned by the caller.
    static IniConfigReader* CreateObject();
    // The process-wide empty reader, made at the first call; each call adds a reference for
    // the caller.
    static IniConfigReader* GetDefault();

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
    // Text that would not read back as written gives configreader_invalid_parameter: a line
    // break in any argument, ']' in the section name, '=' in the item name, or an item name
    // that starts with ';', '#' or '['.
    configreader_status WriteString(const char* section, const char* item,
                                    const char* value) override;
    // Written as a signed 32-bit number ("%d"): 4294967295 is stored as -1 and reads back
    // through ReadUINT as 4294967295.
    configreader_status WriteUINT(const char* section, const char* item,
                                  unsigned int value) override;
    configreader_status WriteConfigReader(const char* section, const char* item,
                                          ConfigReader* reader) override;
    // A missing section or item gives configreader_io_error.
    configreader_status DeleteItem(const char* section, const char* item) override;
    // A missing section gives configreader_io_error.
    configreader_status DeleteSection(const char* section) override;
    bool IsSectionPresent(const char* section) const override;
    // The file's name without folders and without its last extension.
    configreader_status GetReaderName(char* buffer, size_t size) const override;
    int GetNumSections() const override;
    // A name that does not fit is not copied: the buffer stays empty, with success.
    configreader_status GetSectionName(int index, char* buffer, size_t size) const override;
    bool IsItemPresent(const char* section, const char* item) const override;
    // -1 when the section does not exist.
    int GetNumItems(const char* section) const override;
    configreader_status GetItemName(const char* section, int index, char* buffer,
                                    size_t size) const override;
    // Gives configreader_type_ini.
    configreader_type GetType() override;
    // True when a file is set and its check succeeds.
    bool IsConfigurationPresent() const override;

    // Names the file and loads it. `create` makes a missing file; otherwise a missing file
    // is looked for in `directory`. `useIncludes` reads constants from section "INCLUDE".
    virtual configreader_status SetIniFile(const char* file, bool create, bool useIncludes,
                                           const char* directory);
    // Looks at the file now and reloads it when it changed; `*changed` (if given) tells
    // whether it did. `lock` is kept for callers that name it: the check always takes the
    // shared lock to compare and the exclusive lock to reload.
    virtual configreader_status CheckFile(bool* changed, bool lock) const;

    // Copies the constants into `out` (cleared first); false when the file check fails.
    bool GetConsts(ConstMap& out) const;
    // Adds the constants of `in`; names already present keep their value.
    void SetConsts(ConstMap& in) const;
    // Whether operations may rely on OS change events instead of looking at the file each
    // time (on by default). Takes effect at the next SetIniFile.
    void SetFileWatch(bool enabled);

  protected:
    IniConfigReader();
    ~IniConfigReader() override;
    // The working directory: empty, or ending in a separator.
    virtual const char* GetWorkingDir() const;

  private:
    IniConfigReaderImpl* impl_;
};

}  // namespace TOLVEN
