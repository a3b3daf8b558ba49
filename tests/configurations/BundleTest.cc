// Bundles on disk: the property-list reader (strict, for untrusted files), the
// localisation tables, the language order and the bundle search path.

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "configurations/Bundle.h"
#include "configurations/Languages.h"
#include "configurations/PropertyListReader.h"
#include "configurations/StringsTable.h"
#include "platform/ScopedTempDir.h"
#include "qelss/configurations/Bundles.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"

namespace QelSS {
namespace {

std::error_code Code(ErrorCode code) { return make_error_code(code); }

std::string Plist(const std::string& body) { return "<plist version=\"1.0\">" + body + "</plist>"; }

// The parsed value as a hash, or null.
std::shared_ptr<IHash> ParseToHash(const std::string& text) {
  xpc_object_t object = nullptr;
  if (!Succeeded(ParsePropertyList(text, object))) return nullptr;
  std::shared_ptr<IHash> hash;
  const std::error_code rc = HashFactory::Create(hash, static_cast<void*>(object));
  xpc_release(object);
  return Succeeded(rc) ? hash : nullptr;
}

std::error_code ParseCode(const std::string& text) {
  xpc_object_t object = nullptr;
  const std::error_code rc = ParsePropertyList(text, object);
  xpc_release(object);
  return rc;
}

TEST(PropertyListReader, ReadsEveryElementKind) {
  auto hash = ParseToHash(R"(<?xml version="1.0" encoding="UTF-8"?>
    <!-- a comment -->
    <plist version="1.0"><dict>
      <key>text</key><string>caf&#xE9; &amp; more</string>
      <key>empty</key><string/>
      <key>negative</key><integer>-12</integer>
      <key>huge</key><integer>18446744073709551615</integer>
      <key>real</key><real>2.5e3</real>
      <key>yes</key><true/>
      <key>no</key><false/>
      <key>bytes</key><data>
        AAEC
        /w==
      </data>
      <key>when</key><date>2001-01-01T00:00:00Z</date>
      <key>list</key><array><integer>1</integer><string>two</string></array>
      <key>nested</key><dict><key>inner</key><integer>7</integer></dict>
    </dict></plist>)");
  ASSERT_TRUE(hash);
  std::string text;
  EXPECT_EQ(HashHelper::Get(hash, "text", text), Code(kSuccess));
  EXPECT_EQ(text, "caf\xC3\xA9 & more");
  EXPECT_EQ(HashHelper::Get(hash, "empty", text), Code(kSuccess));
  EXPECT_EQ(text, "");
  long long negative = 0;
  EXPECT_EQ(HashHelper::Get(hash, "negative", negative), Code(kSuccess));
  EXPECT_EQ(negative, -12);
  unsigned long long huge = 0;
  EXPECT_EQ(HashHelper::Get(hash, "huge", huge), Code(kSuccess));
  EXPECT_EQ(huge, 18446744073709551615ull);
  double real = 0;
  EXPECT_EQ(HashHelper::Get(hash, "real", real), Code(kSuccess));
  EXPECT_EQ(real, 2500.0);
  bool yes = false, no = true;
  EXPECT_EQ(HashHelper::Get(hash, "yes", yes), Code(kSuccess));
  EXPECT_EQ(HashHelper::Get(hash, "no", no), Code(kSuccess));
  EXPECT_TRUE(yes);
  EXPECT_FALSE(no);
  std::vector<unsigned char> bytes;
  EXPECT_EQ(HashHelper::Get(hash, "bytes", bytes), Code(kSuccess));
  EXPECT_EQ(bytes, (std::vector<unsigned char>{0, 1, 2, 255}));
  long when = 0;
  EXPECT_EQ(HashHelper::Get(hash, "when", when), Code(kSuccess));
  EXPECT_EQ(when, 978307200L);
  std::shared_ptr<IArray> list;
  EXPECT_EQ(HashHelper::Get(hash, "list", list), Code(kSuccess));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->GetCount(), 2u);
  std::shared_ptr<IHash> nested;
  long long inner = 0;
  EXPECT_EQ(HashHelper::Get(hash, "nested", nested), Code(kSuccess));
  EXPECT_EQ(HashHelper::Get(nested, "inner", inner), Code(kSuccess));
  EXPECT_EQ(inner, 7);
}

TEST(PropertyListReader, RefusesAnythingOutsideTheGrammar) {
  const char* bad[] = {
      "",
      "<plist><dict>",                                          // truncated
      "<other><dict/></other>",                                 // wrong root
      "<plist><dict/><dict/></plist>",                          // two values
      "<plist>loose text<dict/></plist>",                       // text beside the value
      "<plist><dict><key>a</key></dict></plist>",               // key without a value
      "<plist><dict><string>a</string><true/></dict></plist>",  // value in the key's place
      "<plist><dict><key>a</key>text<true/></dict></plist>",    // text inside a dict
      "<plist><integer>12abc</integer></plist>",
      "<plist><integer>99999999999999999999</integer></plist>",  // beyond 64 bits
      "<plist><integer>-</integer></plist>",
      "<plist><real>1.5x</real></plist>",
      "<plist><data>!!!!</data></plist>",
      "<plist><date>yesterday</date></plist>",
      "<plist><true>x</true></plist>",
      "<plist><string><b/></string></plist>",
      "<plist><set/></plist>",
      "<plist xmlns='urn:x'><dict/></plist>",
      // An entity reference could hide content: refused, never expanded.
      "<!DOCTYPE plist [<!ENTITY e \"x\">]><plist><string>&e;</string></plist>",
      ("<!DOCTYPE plist [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>"
       "<plist><string>&e;</string></plist>"),
  };
  for (const char* text : bad) {
    EXPECT_EQ(ParseCode(text), Code(kInvalidData)) << text;
  }
}

TEST(PropertyListReader, BoundsNestingAndExpansion) {
  auto nested = [](int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "<array>";
    for (int i = 0; i < depth; ++i) text += "</array>";
    return Plist(text);
  };
  EXPECT_EQ(ParseCode(nested(64)), Code(kSuccess));
  EXPECT_EQ(ParseCode(nested(65)), Code(kInvalidData));
  EXPECT_EQ(ParseCode(nested(100000)), Code(kInvalidData));

  // Each entity expands to ten of the previous one: 10^10 copies if expanded.
  std::string laughs = "<!DOCTYPE plist [<!ENTITY a0 \"lol\">";
  for (int i = 1; i <= 10; ++i) {
    laughs += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) laughs += "&a" + std::to_string(i - 1) + ";";
    laughs += "\">";
  }
  laughs += "]><plist><string>&a10;</string></plist>";
  EXPECT_EQ(ParseCode(laughs), Code(kInvalidData));
}

TEST(PropertyListReader, FilesMustHoldADictionaryOfBoundedSize) {
  testing::ScopedTempDir temp;
  xpc_object_t object = nullptr;
  EXPECT_EQ(ReadPropertyListDictionary(temp / "absent.plist", object), Code(kNotFound));
  std::ofstream(temp / "array.plist") << Plist("<array/>");
  EXPECT_EQ(ReadPropertyListDictionary(temp / "array.plist", object), Code(kInvalidData));
  EXPECT_EQ(ReadPropertyListDictionary(temp.path(), object), Code(kFileReadError));
  {
    std::ofstream big(temp / "big.plist");
    big << "<plist><string>" << std::string((8u << 20) + 1, 'x') << "</string></plist>";
  }
  EXPECT_EQ(ReadPropertyListDictionary(temp / "big.plist", object), Code(kFileReadError));
  EXPECT_EQ(object, nullptr);

  std::ofstream(temp / "ok.plist") << Plist("<dict><key>k</key><true/></dict>");
  ASSERT_EQ(ReadPropertyListDictionary(temp / "ok.plist", object), Code(kSuccess));
  EXPECT_EQ(xpc_get_type(object), XPC_TYPE_DICTIONARY);
  xpc_release(object);
}

TEST(StringsTable, ParsesCommentsEscapesAndBareWords) {
  StringsTable table;
  ASSERT_EQ(ParseStringsTable(R"(
      /* block
         comment */ "quoted" = "with \"quotes\", a\ttab and a \\ backslash";
      // line comment
      bare.key = bare-value;
      "alone";
      "unicode" = "\U00e9\u20AC \UD83D\UDE00 \101";
      "twice" = "first"; "twice" = "second";
  )",
                              table),
            Code(kSuccess));
  EXPECT_EQ(table["quoted"], "with \"quotes\", a\ttab and a \\ backslash");
  EXPECT_EQ(table["bare.key"], "bare-value");
  EXPECT_EQ(table["alone"], "alone");
  EXPECT_EQ(table["unicode"], "\xC3\xA9\xE2\x82\xAC \xF0\x9F\x98\x80 A");
  EXPECT_EQ(table["twice"], "second");
}

TEST(StringsTable, AcceptsUtf16WithAByteOrderMark) {
  auto utf16 = [](const std::string& ascii, bool bigEndian) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (char c : ascii) {
      bytes += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
    }
    return bytes;
  };
  for (bool bigEndian : {false, true}) {
    StringsTable table;
    ASSERT_EQ(ParseStringsTable(utf16("\"1\" = \"One\";", bigEndian), table), Code(kSuccess));
    EXPECT_EQ(table["1"], "One");
  }
  StringsTable table;
  EXPECT_EQ(ParseStringsTable("\xFF\xFE\x31", table), Code(kInvalidData)) << "odd length";
  EXPECT_EQ(ParseStringsTable(std::string("\xFF\xFE\x00\xD8", 4), table), Code(kInvalidData))
      << "unpaired surrogate";
}

TEST(StringsTable, SyntaxErrorsLeaveTheTableUntouched) {
  const char* bad[] = {
      "\"a\" = \"b\"",          // no semicolon
      "\"a\" = \"b;",           // unterminated string
      "/* never closed",        //
      "\"a\" = ;",              // no value
      "= \"b\";",               // no key
      "\"a\" = \"\\UD800x\";",  // high surrogate alone
      "\"a\" = \"\\Uzzzz\";",   // not hex
      "\"a\" \"b\";",           // missing '='
  };
  for (const char* text : bad) {
    StringsTable table{{"kept", "yes"}};
    EXPECT_EQ(ParseStringsTable(text, table), Code(kInvalidData)) << text;
    EXPECT_EQ(table.size(), 1u) << text;
  }
}

TEST(Languages, LocaleNamesExpandWithEnglishAndBaseLast) {
  EXPECT_EQ(LanguagesForLocale("de_DE.UTF-8@euro"),
            (std::vector<std::string>{"de_DE", "de-DE", "de", "en", "Base"}));
  EXPECT_EQ(LanguagesForLocale("fr"), (std::vector<std::string>{"fr", "en", "Base"}));
  EXPECT_EQ(LanguagesForLocale("en_GB"),
            (std::vector<std::string>{"en_GB", "en-GB", "en", "Base"}));
  EXPECT_EQ(LanguagesForLocale("C.UTF-8"), (std::vector<std::string>{"en", "Base"}));
  EXPECT_EQ(LanguagesForLocale("POSIX"), (std::vector<std::string>{"en", "Base"}));
  EXPECT_EQ(LanguagesForLocale("../../etc"), (std::vector<std::string>{"en", "Base"}));
}

TEST(Bundle, SearchesAddedDirectoriesNewestFirstAndRefusesPathLikeIdentifiers) {
  testing::ScopedTempDir older;
  testing::ScopedTempDir newer;
  for (const auto* dir : {&older, &newer}) {
    std::filesystem::create_directories(*dir / "qelvarin/bundles/com.example.search/Base.lproj");
    std::ofstream(*dir / "qelvarin/bundles/com.example.search/Base.lproj/Configurations.strings")
        << "\"who\" = \"" << (dir == &older ? "older" : "newer") << "\";";
  }
  AddBundleSearchDirectory(older.path());
  AddBundleSearchDirectory(newer.path());

  std::shared_ptr<const Bundle> bundle;
  ASSERT_EQ(Bundle::Find("com.example.search", bundle), Code(kSuccess));
  EXPECT_EQ(bundle->Path(), newer / "qelvarin/bundles/com.example.search");
  std::string who;
  EXPECT_EQ(bundle->CopyLocalizedString("who", "Configurations", who), Code(kSuccess))
      << "Base is the last fallback";
  EXPECT_EQ(who, "newer");
  EXPECT_EQ(bundle->CopyLocalizedString("nobody", "Configurations", who), Code(kNotFound));
  std::string path;
  EXPECT_EQ(bundle->ResourcePath("Configurations", "plist", path), Code(kNotFound));

  for (const char* identifier : {"", ".", "..", "com.example/../search", "a/b"}) {
    EXPECT_EQ(Bundle::Find(identifier, bundle), Code(kNotFound)) << identifier;
  }
}

}  // namespace
}  // namespace QelSS
