// Text into the tokeniser: ParseXmlNameAndData and ParseXmlName step through the whole input,
// and the escapes run both ways. Every pointer handed back must lie inside the input, every
// count within it, and escaping then unescaping must give the text back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tolven/blobxml.h"

using namespace TOLVEN;

namespace {

void Check(bool condition) {
    if (!condition) std::abort();
}

void Inside(const char* base, size_t size, const char* p, uint64_t n) {
    Check(p >= base && p + n <= base + size);
}

void CheckRecord(const char* text, size_t size, const XmlNameRet& r) {
    if (r.name != nullptr) Inside(text, size, r.name, r.nameLength);
    Check(r.attributeCount <= kXmlMaxAttributes);
    for (uint32_t k = 0; k < r.attributeCount; ++k)
        Inside(text, size, r.attributes[k].text, r.attributes[k].length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* text = reinterpret_cast<const char*>(data);
    UtilError error;
    XmlNameDataRet element;
    for (size_t pos = 0; pos < size;) {
        const int n = ParseXmlNameAndData(text + pos, size - pos, &element, &error);
        if (n <= 0) {
            Check(n == 0 || element.name == nullptr);
            break;
        }
        Check(static_cast<size_t>(n) <= size - pos);
        CheckRecord(text + pos, static_cast<size_t>(n), element);
        if (element.data != nullptr)
            Inside(text + pos, static_cast<size_t>(n), element.data, element.dataLength);
        pos += static_cast<size_t>(n);
    }
    XmlNameRet tag;
    for (size_t pos = 0; pos < size;) {
        const int n = ParseXmlName(text + pos, size - pos, &tag, nullptr);
        if (n <= 0) break;
        Check(static_cast<size_t>(n) <= size - pos);
        CheckRecord(text + pos, static_cast<size_t>(n), tag);
        pos += static_cast<size_t>(n);
    }
    // Escapes: room enough gives the text back (up to its first NUL); a small room never
    // writes past its end.
    const size_t plain = strnlen(text, size);
    std::vector<char> escaped(plain * 6 + 1), back(plain + 1);
    const int e = ConvertToXml(text, size, escaped.data(), escaped.size());
    Check(e >= 0);
    const int u =
        ConvertFromXml(escaped.data(), static_cast<uint64_t>(e), back.data(), back.size());
    Check(u == static_cast<int>(plain) && std::memcmp(back.data(), text, plain) == 0);
    std::vector<char> small(8, 'z');
    (void)ConvertToXml(text, size, small.data(), 7);
    (void)ConvertFromXml(text, size, small.data(), 7);
    Check(small[7] == 'z');
    return 0;
}
