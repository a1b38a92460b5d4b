#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/plists/PropertyList.h"
#include "platform/values/PlistEncoding.h"

using namespace platform;

namespace {

std::string document(std::string_view value) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" + std::string(value) + "\n</plist>\n";
}

std::string errorOf(std::string_view bytes, std::int64_t* code = nullptr) {
  DomainError error;
  EXPECT_FALSE(parsePropertyList(bytes, &error)) << bytes;
  EXPECT_TRUE(error.isInDomain(PlistErrorDomain));
  if (code != nullptr) *code = error.code;
  return error.localizedDescription();
}

// Kinds and bits, not only property-list equality.
void expectSame(const PlistValue& a, const PlistValue& b) {
  ASSERT_TRUE(a && b);
  EXPECT_EQ(encodePlist(a).flat().view(), encodePlist(b).flat().view());
}

std::string bigEndian(std::uint64_t value, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = size; i-- > 0; value >>= 8) bytes[i] = static_cast<char>(value);
  return bytes;
}

// A binary property list of objects as they are written, references being one byte; the first is the top one.
std::string binary(const std::vector<std::string>& objects, std::size_t offsetSize = 2) {
  std::string bytes = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(bytes.size(), offsetSize);
    bytes += object;
  }
  const std::size_t tableStart = bytes.size();
  return bytes + table + std::string(6, '\0') + bigEndian(offsetSize, 1) + bigEndian(1, 1) +
         bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(tableStart, 8);
}

using namespace std::string_literals;

}  // namespace

TEST(XMLPropertyList, ReadsEveryValue) {
  const std::pair<const char*, PlistValue> cases[] = {
      {"<array><true/><false></false><integer> -12\n</integer><real>1.5e3</real><dict/><array></array></array>",
       PlistValue::array({true, false, -12, 1500.0, PlistBuilder().take(), PlistValue::array({})})},
      {"<data> AP\n\t8= </data>", PlistValue::data("\0\xFF"s)},
      {"<integer>-9223372036854775808</integer>", INT64_MIN},
      {"<integer>9223372036854775808</integer>", std::uint64_t{1} << 63},
      {"<integer>18446744073709551615</integer>", UINT64_MAX},
      {"<integer>+0xfF</integer>", 255},
      {"<integer>-0x10</integer>", -16},
      {"<date>0001-01-01T00:00:00Z</date>", PlistValue::date(-62135596800)},
      {"<date>1969-12-31T23:59:59Z</date>", PlistValue::date(-1)},
      {"<date>2024-02-29T12:00:00Z</date>", PlistValue::date(1709208000)},
      {"<date>9999-12-31T23:59:59Z</date>", PlistValue::date(253402300799)},
      {"<string/>", ""},
      {"<string> &lt;&gt;&amp;&quot;&apos; </string>", " <>&\"' "},
      {"<string>&#65;&#x20AC;&#x1F600;&#13;\n</string>", "A€😀\r\n"},
      {"<string>a<!-- <b> -->b<![CDATA[<&amp;]]>c<?pi ?>d</string>", "ab<&amp;cd"},
      {"<string>1\r\n2\r3<![CDATA[\r\n]]></string>", "1\n2\n3\n"},
      // Of equal keys the last counts.
      {"<dict><key>b</key><integer>1</integer><key>a</key><dict><key>y</key><true/><key>x</key><true/></dict>"
       "<key>b</key><string>last</string><key>a&#98;</key><integer>3</integer></dict>",
       PlistBuilder()
           .set("a", PlistBuilder().set("x", true).set("y", true).take())
           .set("ab", 3)
           .set("b", "last")
           .take()},
  };
  for (const auto& [xml, expected] : cases) {
    SCOPED_TRACE(xml);
    expectSame(parsePropertyList(document(xml)), expected);
  }
}

TEST(XMLPropertyList, RefusesWhatIsNoneOfThem) {
  const std::pair<std::string, std::vector<const char*>> contents[] = {
      {"integer", {"", "-", "0x", "1.0", "1 2", "- 1", "+-1", "18446744073709551616", "-9223372036854775809"}},
      {"date",
       {"0000-01-01T00:00:00Z", "2023-02-29T00:00:00Z", "2023-13-01T00:00:00Z", "2023-01-01T24:00:00Z",
        "2023-01-01T00:60:00Z", "2023-01-01 00:00:00Z", "2023-01-01T00:00:00", "2023-01-01T00:00:0xZ"}},
      {"string",
       {"&nbsp;", "&#0;", "&#x1F;", "&#xD800;", "&#xFFFE;", "&#x110000;", "&#;", "&amp", "<b/>", "<![CDATA[", "\x01",
        "\xC0\xAF", "\xED\xA0\x80", "\xEF\xBF\xBF", "\xF4\x90\x80\x80", "\xE2\x82"}},
      {"data", {"A", "AA=A", "AAA*"}},
      {"real", {"", "1,5", "+-1", "1e999"}},
      {"true", {"<true>", "1"}},
      {"dict", {"<true/>", "<key>a</key>"}},
      {"plist", {"", "<true/><true/>", "<true>", "<null/>", "<true a/>", "<true a=b/>", "x<true/>", "<array></dict>"}},
  };
  for (const auto& [element, texts] : contents) {
    for (const std::string text : texts) {
      const std::string xml = "<" + element + ">" + text + "</" + element + ">";
      EXPECT_FALSE(errorOf(element == "plist" ? xml : document(xml)).empty()) << xml;
    }
  }
}

TEST(XMLPropertyList, WhatSurroundsTheValueIsSkipped) {
  const std::string body = "<plist><true/></plist>";
  EXPECT_TRUE(parsePropertyList(body));
  EXPECT_TRUE(parsePropertyList("\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?>" + body));
  EXPECT_TRUE(parsePropertyList("<!-- a --><?b?><!DOCTYPE plist SYSTEM \"x>y\">\n<!-- c -->" + body + "<!-- d --> \n"));
  EXPECT_TRUE(parsePropertyList("<!DOCTYPE plist [<!ENTITY a \"]>\"><!-- ' ]> --><?x ]>?>] >" + body));
  EXPECT_TRUE(parsePropertyList("<plist version = \"1.0\" x='>' >  <!-- e --><true a='b'/ ></plist >") == PlistValue());
  EXPECT_TRUE(parsePropertyList("<plist version = \"1.0\" x='>' >  <!-- e --><true a='b' /></plist >"));
}

TEST(XMLPropertyList, WhatIsNoDocumentIsRefused) {
  for (const char* bytes : {"", " ", "no", "{ a = b; }", "<", "<plist", "<plist>", "<plist/>", "<plist><true/>",
                            "<plist><true/></plist>x", "<true/>", "</plist>", "<plist a='1'b='2'><true/></plist>",
                            "<!--<plist><true/></plist>", "<!DOCTYPE plist [<plist><true/></plist>"}) {
    EXPECT_FALSE(errorOf(bytes).empty()) << bytes;
  }
  for (const char* before : {"<!DOCTYPE a><!DOCTYPE b>", "<?xml version='1.0' encoding='ISO-8859-1'?>"}) {
    EXPECT_FALSE(errorOf(before + "<plist><true/></plist>"s).empty()) << before;
  }
  EXPECT_EQ(errorOf("\xFF\xFE<\0p\0"s), "property list, line 1: UTF-16 is not supported, only UTF-8");
}

TEST(XMLPropertyList, AnErrorTellsLineAndOffset) {
  std::int64_t code = 0;
  EXPECT_EQ(errorOf("<plist>\n<dict>\n<key>a</key><no\x7F/>", &code),
            "property list, line 3: no value is called \"no\\x7f\"");
  EXPECT_EQ(code, 27);
  EXPECT_EQ(errorOf("<plist>\n<string>\xFF</string></plist>", &code),
            "property list, line 2: not UTF-8, or a character that XML does not allow");
  EXPECT_EQ(code, 16);
}

TEST(XMLPropertyList, NestingIsBounded) {
  auto nested = [](std::size_t depth) {
    std::string arrays, ends;
    for (; depth > 0; --depth) {
      arrays += "<array>";
      ends += "</array>";
    }
    return document(arrays + ends);
  };
  EXPECT_TRUE(parsePropertyList(nested(kPlistMaxInputDepth)));
  EXPECT_FALSE(parsePropertyList(nested(kPlistMaxInputDepth + 1)));
  EXPECT_TRUE(parsePropertyList(nested(kPlistMaxDepth), nullptr, kPlistMaxDepth));
  EXPECT_FALSE(parsePropertyList(nested(100'000), nullptr, 1'000'000));
}

TEST(XMLPropertyList, WhatIsWrittenReadsBackTheSame) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const PlistValue value =
      PlistBuilder()
          .set("numbers", PlistValue::array({INT64_MIN, UINT64_MAX, -0.0, 0.1, 5e-324, -kInfinity, std::nan(""), true}))
          .set("a<b&c>", "\r\n\t <&>\"' ]]> \u007F \u0085 €😀")
          .set("", PlistValue::array({"", PlistValue::data(std::string(1000, '\xFE')), PlistValue::date(-62135596800)}))
          .take();
  const std::string xml = serializePropertyListXML(value);
  expectSame(parsePropertyList(xml), value);
  EXPECT_EQ(xml.find("<!DOCTYPE"), std::string::npos);
}

TEST(XMLPropertyList, WhatXMLCannotCarryIsNotWritten) {
  DomainError error;
  for (const char* text : {"nul\x01", "\xFF", "\xED\xA0\x80", "\xEF\xBF\xBE", "cut \xE2\x82"}) {
    EXPECT_EQ(serializePropertyListXML(PlistValue::array({text}), &error), "");
    EXPECT_EQ(serializePropertyListXML(PlistBuilder().set(text, 1).take(), &error), "");
  }
  std::string out = "kept";
  EXPECT_FALSE(appendPropertyListXML(out, PlistValue::array({"a", "b\x01\"c"}), 0, &error));
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(error.localizedDescription(), "XML cannot carry the text \"b\\x01\\x22c\" because of byte 1");
  // A date loses its fraction of a second.
  for (const auto& [seconds, whole] : {std::pair{-0.25, -1}, {1.75, 1}}) {
    EXPECT_EQ(parsePropertyList(serializePropertyListXML(PlistValue::date(seconds))).dateValue(), whole);
  }
  for (double seconds : {1e12, -1e12, std::nan("")}) EXPECT_EQ(serializePropertyListXML(PlistValue::date(seconds)), "");
  EXPECT_EQ(serializePropertyListXML(PlistValue()), "");
}

TEST(BinaryPropertyList, ReadsEveryType) {
  const std::string bytes =
      binary({"\xD2\x01\x02\x03\x04"s, "\x51k"s, "\x5F\x10\x01l"s, "\xA7\x05\x06\x07\x08\x09\x0A\x0B"s, "\x42\x00\xFF"s,
              "\x08"s, "\x09"s, "\x10\xFF"s, "\x13"s + bigEndian(static_cast<std::uint64_t>(-2), 8),
              "\x14"s + bigEndian(0, 8) + bigEndian(UINT64_MAX, 8), "\x22\x3F\xC0\x00\x00"s,
              "\x64\x00\x41\x20\xAC\xD8\x3D\xDE\x00"s});
  const PlistValue expected = PlistBuilder()
                                  .set("k", PlistValue::array({false, true, 255, -2, UINT64_MAX, 1.5, "A€😀"}))
                                  .set("l", PlistValue::data("\0\xFF"s))
                                  .take();
  expectSame(parsePropertyList(bytes), expected);
  expectSame(parsePropertyList(binary({"\x33\xC1\xCD\x27\xE4\x40\x00\x00\x00"s})), PlistValue::date(0));
  expectSame(parsePropertyList(binary({"\xA1\x01"s, "\x14"s + std::string(8, '\xFF') + bigEndian(1ULL << 63, 8)})),
             PlistValue::array({INT64_MIN}));
}

TEST(BinaryPropertyList, ObjectsThatPropertyListsLackAndLengthsThatLieAreRefused) {
  for (const std::string& object :
       {"\x00"s, "\x0F"s, "\x80\x01"s, "\xC1\x00"s, "\xB1\x00"s, "\x70"s, "\xE0"s, "\x15"s + std::string(32, '\0'),
        "\x14"s + bigEndian(1, 8) + bigEndian(0, 8), "\x21\x00\x00"s, "\x32\x00\x00\x00\x00"s, "\x51\xE9"s,
        "\x61\xD8\x00"s, "\x62\xDC\x00\xD8\x00"s, "\x33\x7F\xF0\x00\x00\x00\x00\x00\x00"s, "\xD1\x00\x00"s,
        "\x5F\x13"s + std::string(8, '\xFF'), "\xDF\x13"s + bigEndian(1ULL << 63, 8), "\xA1\x05"s}) {
    EXPECT_FALSE(errorOf(binary({object})).empty());
  }
  EXPECT_FALSE(parsePropertyList(binary({"\xD1\x01\x01"s, "\x09"s}))) << "a key is a string";
  std::int64_t code = 0;
  EXPECT_EQ(errorOf(binary({"\xA1\x01"s, "\x80\x01"s}), &code),
            "binary property list, byte 10: an object of a type that is not supported");
  EXPECT_EQ(code, 10);
}

TEST(BinaryPropertyList, ObjectsMayBeSharedButNotContainThemselves) {
  const PlistValue shared = parsePropertyList(binary({"\xA2\x01\x01"s, "\xA1\x02"s, "\x51x"s}));
  expectSame(shared, PlistValue::array({PlistValue::array({"x"}), PlistValue::array({"x"})}));
  EXPECT_EQ(errorOf(binary({"\xA1\x01"s, "\xA1\x00"s})), "binary property list, byte 8: an object contains itself");
}

TEST(BinaryPropertyList, SharedObjectsCannotHideDepthOrSize) {
  // Object 1 is met early, near the top, and again at the end of a chain that starts at object 2.
  std::vector<std::string> chain = {"\xA2\x01\x02"s, "\xA1\x03"s, "\xA1\x04"s, "\x09"s};
  while (chain.size() < 66) chain.push_back("\xA1"s + static_cast<char>(chain.size() + 1));
  chain.back() = "\xA1\x01"s;
  EXPECT_NE(errorOf(binary(chain)).find("nested deeper than 64 levels"), std::string::npos);
  EXPECT_EQ(parsePropertyList(binary(chain), nullptr, 70).depth(), 65U);

  std::vector<std::string> doubling;
  for (int i = 1; i < 40; ++i) doubling.push_back("\xA2"s + static_cast<char>(i) + static_cast<char>(i));
  doubling.push_back("\x09"s);
  EXPECT_NE(errorOf(binary(doubling)).find("too large"), std::string::npos);

  // A long key is written out with each entry, in one dictionary as in many small ones.
  constexpr std::size_t kEntries = 255;
  const std::string key = "\x5F\x11"s + bigEndian(0xFFFF, 2) + std::string(0xFFFF, 'k'), count = "\x10\xFF"s;
  const std::string one = "\xDF"s + count + std::string(kEntries, '\1') + std::string(kEntries, '\2');
  EXPECT_NE(errorOf(binary({one, key, "\x09"s}, 3)).find("too large"), std::string::npos);
  std::vector<std::string> many = {"\xAF\x10\xF0"s, key, "\x09"s};
  while (many.size() < 3 + 0xF0) {
    many.front() += static_cast<char>(many.size());
    many.push_back("\xD1\x01\x02"s);
  }
  EXPECT_NE(errorOf(binary(many, 3)).find("too large"), std::string::npos);
}

TEST(BinaryPropertyList, OverlappingObjectsAreRefusedBeforeTheyCostTime) {
  // Thousands of objects that are all the same long array.
  constexpr std::size_t kCount = 2000;
  std::string array = "\xAF\x11"s + bigEndian(kCount, 2);
  for (std::size_t i = 0; i < kCount; ++i) array += bigEndian(i + 1, 2);
  std::string bytes = "bplist00" + array + "\x09";
  const std::size_t table = bytes.size();
  for (std::size_t i = 0; i <= kCount; ++i) bytes += bigEndian(i < kCount ? 8 : table - 1, 2);
  bytes += std::string(6, '\0') + "\x02\x02" + bigEndian(kCount + 1, 8) + bigEndian(0, 8) + bigEndian(table, 8);
  EXPECT_NE(errorOf(bytes).find("objects overlap"), std::string::npos);
}
