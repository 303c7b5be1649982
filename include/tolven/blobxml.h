// The text forms of a blob (for operators and logs), its XML form both ways, and the flat
// XML tokeniser both readers stand on. The tokeniser is a scanner of tags, not a DOM.
//
// The XML form, as BlobToXML writes it:
//   <blob><fNAME type="BLOB_FIELD_TYPE_INT32">5</fNAME><blob name="NAME">...</blob></blob>
// A field's tag is "f" and its escaped name (or its number when it has none); a nested blob
// is a <blob> element whose "name" attribute names the field. `type` is written only when
// asked for; without it every value reads back as text.
//
// What the form keeps: numbers (as their GetStr text, so FLOAT32 keeps 5 decimals and
// FLOAT64 10), non-empty strings that do not begin with a blank, BOOL, non-empty numeric
// arrays whose text fits 254 bytes, and nested blobs. For those, blob -> XML -> blob -> XML
// gives the same XML text. What it does not keep:
//   - an empty string or an empty array is written as an empty element, which the reader
//     refuses (the whole read fails with status 2);
//   - leading blanks of a value are dropped on reading;
//   - TIMESTAMP and UTF16 fields come back as STRING fields holding their text (a time
//     stamp to the whole second); a UTF16 text with a unit above 255, and an array whose
//     text exceeds 254 bytes, are left out;
//   - BINARY and null fields are left out;
//   - a nameless field comes back named by its number; a name with a blank or '/' in it,
//     or longer than 254 bytes once escaped, does not read back as written.
// The reader refuses (status 2) a document that holds, anywhere, a DOCTYPE or any other "<!"
// markup but comments or an entity reference beyond &quot; &lt; &gt; &apos; &amp;, and
// nested blobs deeper than 64 levels.
// No entity is ever expanded but those five, and no file or network is touched.
#pragma once

#include <cstdint>

#include "tolven/blob.h"
#include "tolven/utilerror.h"

namespace TOLVEN {

// How BlobFromXml reads field tags.
enum blobxml_option : uint32_t {
    BLOBXML_DEFAULT = 0,    // a field's tag is 'f' (or 'F') and its name
    BLOBXML_RAW_NAMES = 1,  // the tag text is the field name as it stands
};

// Flags of XmlNameRet.
inline constexpr uint32_t kXmlTagOpen = 1;  // an opening tag was seen
inline constexpr uint32_t kXmlTagClose =
    2;  // a closing '/' was seen; with kXmlTagOpen, self-closed
// Attribute places of XmlNameRet; a tag with more is refused.
inline constexpr uint32_t kXmlMaxAttributes = 100;

// One whole key="value" token of a tag, pointing into the parsed text.
struct XmlAttribute {
    const char* text;
    uint32_t length;
};

// One tag as ParseXmlName found it; pointers point into the parsed text. Entries of
// `attributes` from `attributeCount` on are unspecified. Plain value; not thread-safe.
struct XmlNameRet {
    const char* name;                            // the tag name, null when none was seen
    uint32_t nameLength;                         // its length
    XmlAttribute attributes[kXmlMaxAttributes];  // in the text's order
    uint32_t attributeCount;                     // attributes found
    uint32_t flags;                              // kXmlTagOpen, kXmlTagClose
    uint32_t entityCount;                        // entities in the data (ParseXmlNameAndData)
};

// One element as ParseXmlNameAndData found it. Plain value; not thread-safe.
struct XmlNameDataRet : XmlNameRet {
    const char* data;     // the content: its first non-blank character, null when none
    uint32_t dataLength;  // its length up to the end tag
    bool dataEmpty;       // the end tag followed at once
};

// ---- text forms (a null blob, buffer or size gives 2; *size is room in, length out) ----

// "<F%i>(name=value) " per field, nested blobs in parentheses. When a piece does not fit the
// text written so far stays, terminated, and the status is 1.
blob_status BlobToString(const _BLOB_INFO* blob, char* buffer, uint64_t* size);
// The compact form "[name]value" of named fields, a nested blob as "[name]" and its own
// form. Status 1 and an empty buffer when it does not fit.
blob_status BlobToStringEx(const _BLOB_INFO* blob, char* buffer, uint64_t* size);
// The fields named in `names`, in that order, joined by `delimiter`; a name that is not
// there gives an empty column. A field whose text is empty (an empty string) ends the row
// with status 1, as does a row that does not fit; the buffer is then empty.
blob_status BlobToDelimitedString(const _BLOB_INFO* blob, const char** names, uint64_t count,
                                  char* buffer, uint64_t* size, char delimiter);

// ---- XML ----

// The XML form above, with or without `type` attributes. Status 1, an empty buffer and
// *size 0 when it does not fit.
blob_status BlobToXML(const _BLOB_INFO* blob, char* buffer, uint64_t* size, bool withTypes);
// A new blob (the caller releases it) from the form BlobToXML writes, read up to `length`
// characters or a NUL. Status 2 for text outside the form (*out stays null), else the status
// of the blob call that failed.
blob_status BlobFromXml(const char* text, uint64_t length, _BLOB_INFO** out,
                        blobxml_option option = BLOBXML_DEFAULT);
// A new blob from a free-form XML file: each top-level element a field, elements with
// children or attributes nested blobs (attributes become their string fields), all values
// text. Line breaks and the blanks around them are dropped. Status 2 and a message in
// `error` (may be null) on failure.
blob_status BlobFromXmlFile(const char* path, _BLOB_INFO** out, UtilError* error);

// Escapes `"<>'&` of at most `length` characters of `text` (up to a NUL) into `out` of `size`
// bytes, always terminated; characters that find no room are cut. Returns the length
// written, or -1 (and an empty `out`) when an entity does not fit.
int ConvertToXml(const char* text, uint64_t length, char* out, uint64_t size);
// Replaces the five entities (in any case) by their characters; otherwise as ConvertToXml.
int ConvertFromXml(const char* text, uint64_t length, char* out, uint64_t size);
// Scans one tag, skipping comments and text before it. Returns the characters consumed (all
// that were scanned, with an empty record, when there is no tag), or -1 with the record
// cleared and a message in `error` for malformed text.
int ParseXmlName(const char* text, uint64_t length, XmlNameRet* ret, UtilError* error);
// Scans one element: its tag, and unless self-closed its content up to the matching end tag
// (same name in any case, nesting counted). Returns the characters consumed or -1.
int ParseXmlNameAndData(const char* text, uint64_t length, XmlNameDataRet* ret, UtilError* error);

}  // namespace TOLVEN
