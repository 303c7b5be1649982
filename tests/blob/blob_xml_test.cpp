// The text forms, the XML form both ways with its limits, the tokeniser's messages, the
// free-form file reader, and the round trip of the kinds the XML form keeps.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "log/logfile_test_util.h"
#include "tolven/blobtyped.h"
#include "tolven/blobxml.h"

using namespace TOLVEN;

namespace {

struct Held {
    _BLOB_INFO* p = nullptr;
    Held() { EXPECT_EQ(CreateBlob(&p, BLOB_CREATE_DEFAULT), BLOB_STATUS_SUCCESS); }
    explicit Held(_BLOB_INFO* taken) : p(taken) {}
    ~Held() {
        if (p != nullptr) (void)ReleaseBlob(&p);
    }
    operator _BLOB_INFO*() const { return p; }
};

std::string Xml(const _BLOB_INFO* b, bool withTypes = true) {
    std::vector<char> buffer(1 << 16);
    uint64_t size = buffer.size();
    EXPECT_EQ(BlobToXML(b, buffer.data(), &size, withTypes), BLOB_STATUS_SUCCESS);
    return std::string(buffer.data(), size);
}

blob_status FromXml(const std::string& text, Held& out, blobxml_option option = BLOBXML_DEFAULT) {
    return BlobFromXml(text.c_str(), text.size(), &out.p, option);
}

std::string Str(const _BLOB_INFO* b, const char* name) {
    char text[256] = "?";
    (void)GetByNameStr(b, name, text, sizeof text);
    return text;
}

// A blob of every kind the text forms treat differently.
void FillMixed(_BLOB_INFO* b) {
    Held nested;
    ASSERT_EQ(AddStr(nested, "b", "q", UINT64_MAX), BLOB_STATUS_SUCCESS);
    unsigned char bytes[3] = {1, 2, 3};
    ASSERT_EQ(AddI32(b, "a", 5), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "s", "x<y", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddU8(b, nullptr, 7), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBlob(b, "n", nested), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddBinary(b, "bin", bytes, sizeof bytes), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddNULL(b, "z"), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddF64(b, "f", 1.5), BLOB_STATUS_SUCCESS);
}

TEST(BlobText, BracketedCompactAndDelimitedForms) {
    Held b;
    FillMixed(b);
    char text[512];
    uint64_t size = sizeof text;
    ASSERT_EQ(BlobToString(b, text, &size), BLOB_STATUS_SUCCESS);
    const std::string full =
        "<F0>(a=5) <F1>(s=x<y) <F2>(7) <F3>(n=<F0>(b=q) )<F5>(z=null) <F6>(f=1.5) ";
    EXPECT_EQ(std::string(text), full);
    EXPECT_EQ(size, full.size());
    // Cut short: whole pieces stay, status 1.
    size = 25;
    EXPECT_EQ(BlobToString(b, text, &size), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(std::string(text), "<F0>(a=5) <F1>(s=x<y) ");
    EXPECT_EQ(size, 22u);

    size = sizeof text;
    ASSERT_EQ(BlobToStringEx(b, text, &size), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(std::string(text), "[a]5[s]x<y[n][b]q[f]1.5");
    size = 10;
    EXPECT_EQ(BlobToStringEx(b, text, &size), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 0u);
    EXPECT_STREQ(text, "");

    const char* names[] = {"s", "missing", "A", "n"};
    size = sizeof text;
    ASSERT_EQ(BlobToDelimitedString(b, names, 4, text, &size, ';'), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(std::string(text), "x<y;;5;<F0>(b=q) ");
    size = sizeof text;
    ASSERT_EQ(BlobToDelimitedString(b, names, 0, text, &size, ';'), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(size, 0u);
    // An empty string in a chosen column ends the row.
    ASSERT_EQ(AddStr(b, "empty", "", UINT64_MAX), BLOB_STATUS_SUCCESS);
    const char* withEmpty[] = {"a", "empty", "s"};
    size = sizeof text;
    EXPECT_EQ(BlobToDelimitedString(b, withEmpty, 3, text, &size, ','),
              BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 0u);
    size = 3;
    EXPECT_EQ(BlobToDelimitedString(b, names, 3, text, &size, ';'), BLOB_STATUS_BUFFER_TOO_SMALL);

    Held empty;
    size = sizeof text;
    ASSERT_EQ(BlobToString(empty, text, &size), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(BlobToString(nullptr, text, &size), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BlobToStringEx(b, nullptr, &size), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BlobToXML(b, text, nullptr, true), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobXml, WriterFormsAndOverflow) {
    Held one;
    ASSERT_EQ(AddI32(one, "a", 5), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Xml(one), "<blob><fa type=\"BLOB_FIELD_TYPE_INT32\">5</fa></blob>");
    EXPECT_EQ(Xml(one, false), "<blob><fa>5</fa></blob>");

    Held b;
    FillMixed(b);
    ASSERT_EQ(AddStr(b, "q\"'", "a&b", UINT64_MAX), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Xml(b, false),
              "<blob><fa>5</fa><fs>x&lt;y</fs><f2>7</f2><blob name=\"n\"><fb>q</fb></blob>"
              "<ff>1.5</ff><fq&quot;&apos;>a&amp;b</fq&quot;&apos;></blob>");
    // The quote in the name reads back.
    Held back;
    ASSERT_EQ(FromXml(Xml(b), back), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(back, "q\"'"), "a&b");
    EXPECT_EQ(Str(back, "2"), "7");  // a nameless field comes back named by its number
    EXPECT_EQ(GetFieldType(back, 2), BLOB_FIELD_TYPE_UINT8);

    // Overflow at every length empties the buffer.
    const std::string whole = Xml(b);
    std::vector<char> buffer(whole.size() + 1);
    for (uint64_t room = 0; room <= whole.size(); ++room) {
        uint64_t size = room;
        buffer[0] = 'x';
        ASSERT_EQ(BlobToXML(b, buffer.data(), &size, true), BLOB_STATUS_BUFFER_TOO_SMALL) << room;
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(buffer[0], room != 0 ? 0 : 'x');
    }
    uint64_t size = whole.size() + 1;
    EXPECT_EQ(BlobToXML(b, buffer.data(), &size, true), BLOB_STATUS_SUCCESS);
}

TEST(BlobXml, ReaderTypesEntitiesAndStatuses) {
    Held b;
    ASSERT_EQ(FromXml("<BLOB>\n  <fi type=\"blob_field_type_int64\">-12</fi>\n"
                      "  <!-- a comment <fx>1</fx> between fields -->\n"
                      "  <fe type=\"BLOB_FIELD_TYPE_INT32\">1&amp;2</fe>\n"
                      "  <fu type=\"NO_SUCH_TYPE\">7</fu>\n"
                      "  <fbin type=\"BLOB_FIELD_TYPE_BINARY\">abc</fbin>\n"
                      "  <fr type=\" xml \">&lt;raw&gt;</fr>\n"
                      "  <fl type=\"BLOB_FIELD_TYPE_INT16_ARRAY\">1,-2,3</fl>\n"
                      "  <blob name=\"inner\"><fv>   lead</fv></blob>\n"
                      "</BLOB>trailing text is ignored",
                      b),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetNumFields(b), 7u);
    int64_t i64 = 0;
    EXPECT_EQ(GetByNameI64(b, "i", &i64), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(i64, -12);
    EXPECT_FALSE(IsFieldPresent(b, "x"));
    const char* names[] = {"e", "u", "bin", "r"};
    for (const char* name : names) {
        uint64_t index = 0;
        ASSERT_EQ(GetFieldNumber(b, name, &index), BLOB_STATUS_SUCCESS);
        EXPECT_EQ(GetFieldType(b, index), BLOB_FIELD_TYPE_STRING) << name;
    }
    EXPECT_EQ(Str(b, "e"), "1&2");
    EXPECT_EQ(Str(b, "r"), "&lt;raw&gt;");  // marked xml: kept as it stands
    EXPECT_EQ(Str(b, "l"), "1,-2,3");
    _BLOB_INFO* inner = nullptr;
    ASSERT_EQ(GetByNameBlob(b, "inner", &inner), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(inner, "v"), "lead");
    (void)ReleaseBlob(&inner);

    Held raw;
    ASSERT_EQ(FromXml("<blob><plain>1</plain></blob>", raw, BLOBXML_RAW_NAMES),
              BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(raw, "plain"), "1");

    const char* refused[] = {
        "",
        "<notblob></notblob>",
        "<blob><plain>1</plain></blob>",  // no leading f
        "<blob><fa></fa></blob>",         // empty data
        "<blob><fa/></blob>",             // self-closed field
        "<blob><fa>1</fa>",               // no end tag
        "<blob><fa>1</fb></blob>",        // mismatched
        "<blob><blob>x</blob></blob>",    // nested without attributes
        "<blob><fa>1 > 0</fa></blob>",    // bare >
        "<blob></fa></blob>",             // a stray end tag
        "<!DOCTYPE blob><blob></blob>",   // a DOCTYPE is refused
        "<blob><!DOCTYPE x [<!ENTITY e \"z\">]><fa>&e;</fa></blob>",
        "<blob><fa>&e;</fa></blob>",    // an entity beyond the five
        "<blob><fa>&#60;</fa></blob>",  // character references too
        "<blob><fa type=\"&x;\">1</fa></blob>",
        "<?xml version=\"1.0\"?><blob></blob>",  // a processing instruction
    };
    for (const char* text : refused) {
        Held out(nullptr);
        EXPECT_EQ(FromXml(text, out), BLOB_STATUS_INVALID_PARAMETER) << text;
        EXPECT_EQ(out.p, nullptr);
    }
    Held out(nullptr);
    EXPECT_EQ(BlobFromXml(nullptr, 0, &out.p, BLOBXML_DEFAULT), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(BlobFromXml("<blob/>", 7, nullptr, BLOBXML_DEFAULT), BLOB_STATUS_INVALID_PARAMETER);
    // A type the text form cannot add is the status of that add.
    EXPECT_EQ(FromXml("<blob><fa type=\"BLOB_FIELD_TYPE_BLOB\">1</fa></blob>", out),
              BLOB_STATUS_ITEM_NOT_FOUND);
    // A bare '&' that is no reference stays text; the document may end at a NUL.
    const char withNul[] = "<blob><fa>a & b;</fa><fb>2</fb></blob>\0<x";
    ASSERT_EQ(FromXml(std::string(withNul, sizeof withNul - 1), out), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(out, "a"), "a & b;");
}

TEST(BlobXml, NestingStopsBelowSixtyFiveLevels) {
    auto nestedXml = [](int levels) {
        std::string text = "<blob>";
        for (int k = 0; k < levels; ++k)
            text += "<blob name=\"n\">";
        text += "<fv>1</fv>";
        for (int k = 0; k < levels; ++k)
            text += "</blob>";
        return text + "</blob>";
    };
    Held deep(nullptr);
    ASSERT_EQ(FromXml(nestedXml(64), deep), BLOB_STATUS_SUCCESS);
    _BLOB_INFO* level = deep.p;
    (void)AddRefBlob(level);
    for (int k = 0; k < 64; ++k) {
        _BLOB_INFO* next = nullptr;
        ASSERT_EQ(GetByNameBlob(level, "n", &next), BLOB_STATUS_SUCCESS) << k;
        (void)ReleaseBlob(&level);
        level = next;
    }
    EXPECT_EQ(Str(level, "v"), "1");
    (void)ReleaseBlob(&level);
    Held tooDeep(nullptr);
    EXPECT_EQ(FromXml(nestedXml(65), tooDeep), BLOB_STATUS_INVALID_PARAMETER);
}

TEST(BlobXml, GetBlobReadsAStringFieldAsXml) {
    Held b;
    ASSERT_EQ(AddStr(b, "x", "<blob><fa type=\"BLOB_FIELD_TYPE_UINT16\">9</fa></blob>", UINT64_MAX),
              BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddStr(b, "bad", "<blob><fa>", UINT64_MAX), BLOB_STATUS_SUCCESS);
    _BLOB_INFO* got = nullptr;
    ASSERT_EQ(GetByNameBlob(b, "x", &got), BLOB_STATUS_SUCCESS);
    uint16_t v = 0;
    EXPECT_EQ(GetByNameU16(got, "a", &v), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(v, 9);
    (void)ReleaseBlob(&got);
    EXPECT_EQ(GetByNameBlob(b, "bad", &got), BLOB_STATUS_UNHANDLED_TYPE);
    EXPECT_EQ(got, nullptr);
}

// ---- the tokeniser ----

std::string Error(const std::string& text, bool withData = false) {
    UtilError error;
    int r;
    if (withData) {
        XmlNameDataRet ret;
        r = ParseXmlNameAndData(text.c_str(), text.size(), &ret, &error);
        EXPECT_EQ(ret.name, nullptr);
    } else {
        XmlNameRet ret;
        r = ParseXmlName(text.c_str(), text.size(), &ret, &error);
        EXPECT_EQ(ret.name, nullptr);
    }
    EXPECT_EQ(r, -1) << text;
    return error.GetError();
}

TEST(XmlTokens, TagsAttributesAndMessages) {
    XmlNameRet tag;
    const std::string t = "  <!-- <no> --> <item  key=\"a b/c>\"\tk2='x' /> tail";
    ASSERT_EQ(ParseXmlName(t.c_str(), t.size(), &tag, nullptr), -1);  // '>' inside quotes
    const std::string ok = " <!-- <no> --><item  key=\"a b/c\"\tk2=x />tail";
    ASSERT_EQ(ParseXmlName(ok.c_str(), ok.size(), &tag, nullptr),
              static_cast<int>(ok.find("tail")));
    EXPECT_EQ(std::string(tag.name, tag.nameLength), "item");
    ASSERT_EQ(tag.attributeCount, 2u);
    EXPECT_EQ(std::string(tag.attributes[0].text, tag.attributes[0].length), "key=\"a b/c\"");
    EXPECT_EQ(std::string(tag.attributes[1].text, tag.attributes[1].length), "k2=x");
    EXPECT_EQ(tag.flags, kXmlTagOpen | kXmlTagClose);
    ASSERT_EQ(ParseXmlName("</end>", 6, &tag, nullptr), 6);
    EXPECT_EQ(tag.flags, kXmlTagClose);
    ASSERT_EQ(ParseXmlName("  <!-- only -->  ", 17, &tag, nullptr), 17);
    EXPECT_EQ(tag.name, nullptr);

    EXPECT_EQ(Error("<a <b>"), "Invalid format.  Unexpected < at position 3 in <a <b>.");
    EXPECT_EQ(Error("<a k=\"x>\">"),
              "Invalid format.  Unexpected > at position 7 in <a k=\"x>\">.");
    EXPECT_EQ(Error("<a//>"),
              "Invalid format.  Duplicate closing tag / found at position 3 in <a//>.");
    EXPECT_EQ(Error("</a b>"),
              "Invalid format.  Data not allowed after the close tag at position 4 in </a b>.");
    EXPECT_EQ(Error("< >"), "Invalid format.  Expected name or value at position 2 in < >.");
    EXPECT_EQ(Error("<a k=\"x"),
              "Invalid format.  Expected name or value at position 7 in <a k=\"x.");
    EXPECT_EQ(Error("<!-- x"), "Invalid format.  A comment tag was not closed.");
    EXPECT_EQ(Error("<a k=x"), "Invalid format.  The close tag was not found.");
    std::string many = "<a";
    for (int k = 0; k <= 100; ++k)
        many += " k" + std::to_string(k) + "=1";
    EXPECT_NE(Error(many + ">").find("Too many attributes"), std::string::npos);

    EXPECT_EQ(Error("<?xml version=\"1.0\"?><blob/>", true),
              "Invalid format.  End tag not found for item ?xml.");
    EXPECT_EQ(Error("<a>1 > 0</a>", true),
              "Invalid format.  Unexpected > at position 5 in <a>1 > 0</a>.");
    EXPECT_EQ(Error("<" + std::string(300, 'n') + ">", true),
              "Invalid format.  End tag not found for item " + std::string(254, 'n') + ".");
    EXPECT_EQ(Error(std::string("  \0<a/>", 7), true), "Invalid format.  Item not found.");
}

TEST(XmlTokens, ElementDataNestingAndEntities) {
    XmlNameDataRet el;
    const std::string t = "<A k=1>  x&LT;<a>y</a><b/>&amp;z</a>rest";
    ASSERT_EQ(ParseXmlNameAndData(t.c_str(), t.size(), &el, nullptr),
              static_cast<int>(t.find("rest")));
    EXPECT_EQ(std::string(el.data, el.dataLength), "x&LT;<a>y</a><b/>&amp;z");
    EXPECT_EQ(el.entityCount, 2u);
    EXPECT_FALSE(el.dataEmpty);
    ASSERT_EQ(ParseXmlNameAndData("<a>  </a>", 9, &el, nullptr), 9);
    EXPECT_TRUE(el.dataEmpty);
    EXPECT_EQ(el.dataLength, 0u);
    ASSERT_EQ(ParseXmlNameAndData("<a k='v'/>", 10, &el, nullptr), 10);
    EXPECT_EQ(el.data, nullptr);
    EXPECT_EQ(el.attributeCount, 1u);
}

TEST(XmlTokens, EscapesBothWays) {
    char out[32];
    EXPECT_EQ(ConvertToXml("a<\"&'>", 100, out, sizeof out), 26);
    EXPECT_STREQ(out, "a&lt;&quot;&amp;&apos;&gt;");
    EXPECT_EQ(ConvertToXml("abc<", 100, out, 5), -1);  // the entity does not fit
    EXPECT_STREQ(out, "");
    EXPECT_EQ(ConvertToXml("abcdef", 100, out, 4), 3);  // plain characters are cut
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(ConvertToXml("abcdef", 2, out, sizeof out), 2);
    EXPECT_EQ(ConvertFromXml("&LT;x&Amp;&quot&apos;", 100, out, sizeof out), 9);
    EXPECT_STREQ(out, "<x&&quot'");
    EXPECT_EQ(ConvertFromXml("&lt", 100, out, sizeof out), 3);
    EXPECT_EQ(ConvertToXml("x", 1, nullptr, 4), -1);
}

// ---- round trip ----

TEST(BlobXml, RoundTripOfKeptKindsIsStable) {
    std::mt19937_64 rng(20261124);
    const std::string alphabet = "abcXYZ09 <>&\"'_.-;";
    auto word = [&](size_t min, size_t max, bool firstBlank) {
        std::string s;
        const size_t n = min + rng() % (max - min + 1);
        while (s.size() < n) {
            const char c = alphabet[rng() % alphabet.size()];
            if (!firstBlank && s.empty() && c == ' ') continue;
            s += c;
        }
        return s;
    };
    std::function<void(_BLOB_INFO*, int)> fill = [&](_BLOB_INFO* b, int depth) {
        const int fields = 1 + static_cast<int>(rng() % 8);
        for (int k = 0; k < fields; ++k) {
            // Names: no blank or '/', which a tag cannot carry, and no quote at the end,
            // which the name attribute of a nested blob strips.
            std::string name = "n" + (rng() % 2 ? word(1, 6, false) : "") + std::to_string(k);
            for (char& c : name)
                if (c == ' ') c = '_';
            switch (rng() % 9) {
                case 0:
                    (void)AddI8(b, name.c_str(), static_cast<char>(rng()));
                    break;
                case 1:
                    (void)AddI32(b, name.c_str(), static_cast<int32_t>(rng()));
                    break;
                case 2:
                    (void)AddI64(b, name.c_str(), static_cast<int64_t>(rng()));
                    break;
                case 3:
                    (void)AddU64(b, name.c_str(), rng());
                    break;
                case 4:
                    (void)AddF64(
                        b, name.c_str(),
                        static_cast<double>(static_cast<int32_t>(rng() % 2000000) - 1000000) /
                                1024.0 +
                            1e-7 * (rng() % 1000));
                    break;
                case 5:
                    (void)AddF32(
                        b, name.c_str(),
                        static_cast<float>(static_cast<int32_t>(rng() % 20000) - 10000) / 7.0f);
                    break;
                case 6:
                    (void)AddBOOL(b, name.c_str(), static_cast<unsigned char>(rng() % 2));
                    break;
                case 7:
                    (void)AddStr(b, name.c_str(), word(1, 20, false).c_str(), UINT64_MAX);
                    break;
                default:
                    if (depth < 3) {
                        Held nested;
                        fill(nested, depth + 1);
                        (void)AddBlob(b, name.c_str(), nested);
                    } else {
                        int32_t values[3] = {static_cast<int32_t>(rng()), -1, 7};
                        (void)AddI32Array(b, name.c_str(), values, 3);
                    }
            }
        }
    };
    for (int round = 0; round < 300; ++round) {
        Held b;
        fill(b, 0);
        const bool withTypes = round % 4 != 0;
        const std::string first = Xml(b, withTypes);
        Held back(nullptr);
        ASSERT_EQ(FromXml(first, back), BLOB_STATUS_SUCCESS) << first;
        ASSERT_EQ(Xml(back, withTypes), first);
    }
}

TEST(BlobXml, KindsTheFormDoesNotKeep) {
    Held b;
    const _blob_timestamp t{2026, 11, 24, 23, 30, 5, 123000000};
    ASSERT_EQ(AddTimeStamp(b, "t", t), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddUTF16(b, "w", u"wide", UINT64_MAX), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(AddUTF16(b, "wx", u"\u263a", UINT64_MAX), BLOB_STATUS_SUCCESS);
    unsigned char bytes[2] = {0, 1};
    ASSERT_EQ(AddBinary(b, "bin", bytes, 2), BLOB_STATUS_SUCCESS);
    char stamp[64];
    ASSERT_EQ(GetByNameStr(b, "t", stamp, sizeof stamp), BLOB_STATUS_SUCCESS);
    Held back(nullptr);
    ASSERT_EQ(FromXml(Xml(b), back), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetNumFields(back), 2u);  // the BINARY and the wide UTF16 are left out
    EXPECT_EQ(GetFieldType(back, 0), BLOB_FIELD_TYPE_STRING);
    EXPECT_EQ(Str(back, "t"), stamp);
    EXPECT_EQ(GetFieldType(back, 1), BLOB_FIELD_TYPE_STRING);
    EXPECT_EQ(Str(back, "w"), "wide");
    // The text holds whole seconds: the time reads back without its nanoseconds.
    _blob_timestamp read{}, whole = t;
    whole.nanoseconds = 0;
    EXPECT_EQ(GetByNameTimeStamp(back, "t", &read), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(CompareBlobTime(read, whole), 0);

    // An empty string or array writes an empty element, which the reader refuses.
    for (int kind = 0; kind < 2; ++kind) {
        Held e;
        if (kind == 0)
            ASSERT_EQ(AddStr(e, "s", "", UINT64_MAX), BLOB_STATUS_SUCCESS);
        else
            ASSERT_EQ(AddI32Array(e, "a", &kind, 0), BLOB_STATUS_SUCCESS);
        Held none(nullptr);
        EXPECT_EQ(FromXml(Xml(e), none), BLOB_STATUS_INVALID_PARAMETER) << kind;
    }
}

// ---- the free-form file reader ----

TEST(BlobXmlFile, FreeFormDocuments) {
    tolven_test::ScratchDir dir;
    auto write = [&](const std::string& name, const std::string& text) {
        const std::string path = dir / name;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        std::fputs(text.c_str(), f);
        std::fclose(f);
        return path;
    };
    const std::string good = write("good.xml",
                                   "<host>\r\n\t  alpha   \r\n</host>\n"
                                   "<port name=\"listen\">80</port>\n"
                                   "<db user=\"sa\" pool=\"4\">\n  <timeout>30</timeout>\n</db>\n"
                                   "<list><item>1</item><deep><x>a&amp;b</x></deep></list>\n"
                                   "<flag/>\n");
    UtilError error;
    Held b(nullptr);
    ASSERT_EQ(BlobFromXmlFile(good.c_str(), &b.p, &error), BLOB_STATUS_SUCCESS) << error.GetError();
    EXPECT_EQ(Str(b, "host"), "alpha");
    EXPECT_EQ(Str(b, "listen"), "80");
    EXPECT_EQ(Str(b, "flag"), "");
    _BLOB_INFO* db = nullptr;
    ASSERT_EQ(GetByNameBlob(b, "db", &db), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(db, "user"), "sa");
    EXPECT_EQ(Str(db, "pool"), "4");
    EXPECT_EQ(Str(db, "timeout"), "30");
    (void)ReleaseBlob(&db);
    _BLOB_INFO* list = nullptr;
    ASSERT_EQ(GetByNameBlob(b, "list", &list), BLOB_STATUS_SUCCESS);
    _BLOB_INFO* deep = nullptr;
    ASSERT_EQ(GetByNameBlob(list, "deep", &deep), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(Str(deep, "x"), "a&b");
    (void)ReleaseBlob(&deep);
    (void)ReleaseBlob(&list);

    struct Case {
        std::string file, text, message;
    };
    const Case bad[] = {
        {"noeq.xml", "<a key>1</a>", "Sign '=' not found in attribute [key]"},
        {"attrs.xml", "<a k=\"v\">text</a>",
         "Invalid data, a nested tag expected since attributes present: [a]"},
        {"open.xml", "<a>1", "Invalid format.  End tag not found for item a."},
        {"doctype.xml", "<!DOCTYPE a [<!ENTITY e \"x\">]>\n<a>&e;</a>",
         "Invalid format.  Unexpected < at position 13 in <!DOCTYPE a [<!ENTITY e "
         "\"x\">]><a>&e;</a>."},
        {"entity.xml", "<a>&e;</a>", "Invalid format.  Markup or entity not accepted in [a]"},
    };
    for (const Case& c : bad) {
        UtilError e;
        Held none(nullptr);
        EXPECT_EQ(BlobFromXmlFile(write(c.file, c.text).c_str(), &none.p, &e),
                  BLOB_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(none.p, nullptr);
        EXPECT_EQ(std::string(e.GetError()), c.message) << c.file;
    }
    UtilError e;
    Held none(nullptr);
    const std::string missing = dir / "missing.xml";
    EXPECT_EQ(BlobFromXmlFile(missing.c_str(), &none.p, &e), BLOB_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(std::string(e.GetError()), "Cannot open xml file [" + missing + "]");
    EXPECT_EQ(BlobFromXmlFile(nullptr, &none.p, &e), BLOB_STATUS_INVALID_PARAMETER);
}

}  // namespace
