#pragma once

// Value trees for the byte-form tests: short builders, a dump that tells apart
// every pair of trees that differ (doubles by their bits), and generators of
// random trees and of random, often malformed, byte-form documents.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS::testing {

using Bytes = std::vector<uint8_t>;
using ValuePtr = std::shared_ptr<IValue>;

inline Bytes ToBytes(std::string_view text) { return Bytes(text.begin(), text.end()); }
inline std::string ToText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// Makes a value with Factory::Create(out, args...), which must succeed.
template <typename I, typename Factory, typename... Args>
ValuePtr Make(Args&&... args) {
  std::shared_ptr<I> value;
  EXPECT_EQ(Factory::Create(value, std::forward<Args>(args)...), make_error_code(kSuccess));
  return value;
}

inline ValuePtr Null() { return Make<INull, NullFactory>(); }
inline ValuePtr Int(long long n) { return Make<INumber, NumberFactory>(n); }
inline ValuePtr UInt(unsigned long long n) { return Make<INumber, NumberFactory>(n); }
inline ValuePtr Bool(bool b) { return Make<INumber, NumberFactory>(b); }
inline ValuePtr Double(double d) { return Make<INumber, NumberFactory>(d); }
inline ValuePtr Str(const std::string& text) { return Make<IString, StringFactory>(text); }
inline ValuePtr DateAt(long seconds) { return Make<IDate, DateFactory>(seconds); }
inline ValuePtr Uuid(const UUIDBytes& bytes) { return Make<IUUID, UUIDFactory>(bytes); }
inline ValuePtr DataOf(const Bytes& bytes) {
  static const unsigned char kNone = 0;  // the factory wants a pointer even for no bytes
  return Make<IData, DataFactory>(bytes.empty() ? &kNone : bytes.data(),
                                  static_cast<unsigned long>(bytes.size()));
}
inline ValuePtr ArrayOf(std::initializer_list<ValuePtr> elements) {
  std::shared_ptr<IArray> array;
  EXPECT_EQ(ArrayFactory::Create(array), make_error_code(kSuccess));
  for (const ValuePtr& element : elements) {
    EXPECT_EQ(array->Append(element), make_error_code(kSuccess));
  }
  return array;
}
inline std::shared_ptr<IHash> HashOf(
    std::initializer_list<std::pair<std::string, ValuePtr>> entries) {
  std::shared_ptr<IHash> hash;
  EXPECT_EQ(HashFactory::Create(hash), make_error_code(kSuccess));
  for (const auto& [key, value] : entries) {
    EXPECT_EQ(hash->Set(key.c_str(), value), make_error_code(kSuccess));
  }
  return hash;
}

// One line naming every detail of the tree; "-" for no value.
inline std::string Dump(const ValuePtr& value) {
  if (!value) return "-";
  char buffer[64];
  switch (value->GetType()) {
    case kValueTypeNull:
      return "null";
    case kValueTypeNumber: {
      auto number = std::dynamic_pointer_cast<INumber>(value);
      int64_t i;
      uint64_t u;
      bool b;
      double d;
      if (Succeeded(number->GetInt64(i))) return "i" + std::to_string(i);
      if (Succeeded(number->GetUInt64(u))) return "u" + std::to_string(u);
      if (Succeeded(number->GetBool(b))) return b ? "true" : "false";
      if (!Succeeded(number->GetDouble(d))) return "number?";
      uint64_t bits;
      std::memcpy(&bits, &d, sizeof bits);
      std::snprintf(buffer, sizeof buffer, "d%.17g#%016" PRIx64, d, bits);
      return buffer;
    }
    case kValueTypeString: {
      const char* text = std::dynamic_pointer_cast<IString>(value)->GetCString();
      return "s" + std::to_string(std::strlen(text)) + "'" + text + "'";
    }
    case kValueTypeData: {
      auto data = std::dynamic_pointer_cast<IData>(value);
      std::string out = "x";
      for (size_t i = 0; i < data->GetLength(); ++i) {
        std::snprintf(buffer, sizeof buffer, "%02x", data->GetBytes()[i]);
        out += buffer;
      }
      return out;
    }
    case kValueTypeDate:
      return "t" + std::to_string(std::dynamic_pointer_cast<IDate>(value)->GetTime());
    case kValueTypeUUID: {
      std::string text;
      EXPECT_EQ(std::dynamic_pointer_cast<IUUID>(value)->GetString(text),
                make_error_code(kSuccess));
      return "g" + text;
    }
    case kValueTypeArray: {
      std::string out = "[";
      EXPECT_EQ(
          std::dynamic_pointer_cast<IArray>(value)->Iterate(
              [&](const ValuePtr& element, unsigned int, bool&) { out += Dump(element) + ","; }),
          make_error_code(kSuccess));
      return out + "]";
    }
    case kValueTypeHash: {
      std::string out = "{";
      EXPECT_EQ(std::dynamic_pointer_cast<IHash>(value)->Iterate(
                    [&](const std::shared_ptr<IString>& key, const ValuePtr& element, bool&) {
                      out += Dump(key) + ":" + Dump(element) + ",";
                    }),
                make_error_code(kSuccess));
      return out + "}";
    }
    default:
      return "?";
  }
}

// Random trees whose strings are meant to hurt: markup, quotes, CR, LF, tab,
// non-ASCII, "]]>", empty text, and now and then control characters or bytes
// that are not UTF-8 (written as they are, so such a tree does not read back).
class TreeGenerator {
 public:
  explicit TreeGenerator(uint32_t start) : random_(start) {}

  ValuePtr Tree(int depth) {
    const int kind = Pick(depth > 0 ? 11 : 8);
    switch (kind) {
      case 0:
        return Null();
      case 1:
        return Int(static_cast<long long>(random_()) - (1LL << 31) * Pick(3));
      case 2:
        return UInt(static_cast<unsigned long long>(random_()) << Pick(33));
      case 3:
        return Bool(Pick(2) == 1);
      case 4:
        return Double(RandomDouble());
      case 5:
        return Str(Text());
      case 6:
        return RandomData();
      case 7:
        return Pick(2) ? DateAt(static_cast<long>(random_() % 4000000000u))
                       : Uuid(RandomUuidBytes());
      case 8:
      case 9: {
        std::shared_ptr<IHash> hash = HashOf({});
        for (int n = Pick(5); n > 0; --n) {
          EXPECT_EQ(hash->Set(Text().c_str(), Tree(depth - 1)), make_error_code(kSuccess));
        }
        return hash;
      }
      default: {
        auto array = std::dynamic_pointer_cast<IArray>(ArrayOf({}));
        for (int n = Pick(5); n > 0; --n) {
          EXPECT_EQ(array->Append(Tree(depth - 1)), make_error_code(kSuccess));
        }
        return array;
      }
    }
  }

  std::string Text() {
    static const char* const kPieces[] = {"a",
                                          "Zz",
                                          " ",
                                          "<",
                                          ">",
                                          "&",
                                          "\"",
                                          "'",
                                          "\r",
                                          "\n",
                                          "\t",
                                          "\r\n",
                                          "]]>",
                                          "&amp;",
                                          "\xc3\xa9",
                                          "\xe4\xb8\xad",
                                          "\xf0\x9f\x98\x80",
                                          "%s",
                                          "%n",
                                          "/",
                                          "=",
                                          "0"};
    static const char* const kUnreadable[] = {"\x01", "\x1f", "\x7f", "\xff", "\xc3"};
    std::string text;
    for (int n = Pick(6); n > 0; --n) {
      text += Pick(40) == 0 ? kUnreadable[Pick(std::size(kUnreadable))]
                            : kPieces[Pick(std::size(kPieces))];
    }
    return text;
  }

  int Pick(size_t bound) { return static_cast<int>(random_() % bound); }
  std::mt19937& random() { return random_; }

 private:
  double RandomDouble() {
    static const double kAwkward[] = {
        0.0, -0.0, 0.1, 1e-9, -1e-7, 0.5, 1e300, -1e22, 3.25, 1e-300, 123456.7891234,
        8.5e9 + 0.123456789,
        // Halfway between two six-decimal texts, the extremes, and the double
        // nearest 1e23 (one digit shorter than 1e23 itself).
        0.0078125, -0.0234375, -1.7976931348623157e308, 4.9e-324, 1e23};
    if (Pick(3) == 0) return kAwkward[Pick(std::size(kAwkward))];
    return std::uniform_real_distribution<double>(-1e6, 1e6)(random_);
  }
  ValuePtr RandomData() {
    Bytes bytes(static_cast<size_t>(Pick(4) == 0 ? Pick(200) : Pick(8)));
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    return DataOf(bytes);
  }
  UUIDBytes RandomUuidBytes() {
    UUIDBytes bytes{};
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random_());
    return bytes;
  }

  std::mt19937 random_;
};

// Random documents in the neighbourhood of the byte form: right and wrong
// names, kinds and contents, blanks, comments, CDATA and stray elements inside
// scalars, malformed hash pairs, nesting that needs a second reading. Each
// element goes wrong only rarely, so that most documents read to the end.
class XmlGenerator {
 public:
  explicit XmlGenerator(uint32_t start) : trees_(start) {}

  std::string Document() { return Pick(4) ? Container(Pick(2) ? "Hash" : "Array", 3) : Element(3); }

 private:
  bool Rarely() { return Pick(30) == 0; }

  template <size_t N>
  const char* OneOf(const char* const (&choices)[N]) {
    return choices[Pick(N)];
  }

  std::string Element(int depth) {
    if (Rarely()) return Odd();
    switch (Pick(depth > 0 ? 10 : 7)) {
      case 0:
        return Pick(2) ? "<NULL/>" : "<NULL kind=\"x\">ignored</NULL>";
      case 1:
      case 2:
        return Number();
      case 3:
        return "<String>" + Content() + "</String>";
      case 4: {
        static const char* const kData[] = {"<Data>AAEC\r\n  AwQ=</Data>", "<Data></Data>",
                                            "<Data>/w==</Data>"};
        return Rarely() ? "<Data>***</Data>" : OneOf(kData);
      }
      case 5: {
        static const char* const kDates[] = {"0",    "1700000000",   "-5",
                                             " 42 ", "-99999999999", "18446744068"};
        return std::string("<Date>") + (Rarely() ? "x" : OneOf(kDates)) + "</Date>";
      }
      case 6:
        return Rarely() ? "<UUID>nope</UUID>" : "<UUID>0a1b2c3d-4e5f-6071-8293-a4b5c6d7e8f9</UUID>";
      case 7:
        return Container(Pick(2) ? "Hash" : "Array", depth - 1);
      default:
        return Container("Hash", depth - 1);
    }
  }

  std::string Odd() {
    static const char* const kOdd[] = {"<Float>1</Float>",
                                       "<string>x</string>",
                                       "<p:String xmlns:p=\"urn:x\">ns</p:String>",
                                       "<q:String>undeclared</q:String>",
                                       "<Number>5</Number>",
                                       "<Number type=\"float\">1</Number>",
                                       "<Number type=\"\">1</Number>",
                                       "<Number type=\"int\">abc</Number>",
                                       "<Number type=\"int\">99999999999999999999</Number>",
                                       "<Number type=\"double\">1e-320</Number>"};
    return OneOf(kOdd);
  }

  std::string Number() {
    static const char* const kKinds[] = {"int", "uint", "bool", "double", "double"};
    static const char* const kDigits[] = {"12",
                                          " -5",
                                          "1e300",
                                          "0.1234567",
                                          "-0",
                                          "0x10",
                                          "3.5abc",
                                          "-1",
                                          "2",
                                          "123456789012.3456789",
                                          "nan",
                                          "-1e-7",
                                          "9007199254740993"};
    return std::string("<Number ") + (Pick(6) ? "type" : "kind") + "=\"" + OneOf(kKinds) + "\">" +
           OneOf(kDigits) + "</Number>";
  }

  std::string Content() {
    std::string text;
    for (int n = Pick(3); n > 0; --n) {
      switch (Pick(8)) {
        case 0:
          text += "<![CDATA[<&>]]>";
          break;
        case 1:
          text += "<!-- note -->";
          break;
        case 2:
          text += "<b>inner</b>";
          break;
        case 3:
          text += "&lt;&amp;&#13;&#x10FFFF;\"";
          break;
        default:
          text += Escaped(trees_.Text());
      }
    }
    return text;
  }

  std::string Container(const char* name, int depth) {
    const bool hash = std::strcmp(name, "Hash") == 0;
    std::string body;
    for (int n = Pick(5); n > 0; --n) {
      if (hash) {
        body += Rarely() ? Element(depth) : "<String>" + Escaped(trees_.Text()) + "</String>";
        body += Separator();
        if (Rarely()) continue;  // a key without its value
      }
      body += Element(depth) + Separator();
    }
    return std::string("<") + name + ">" + Separator() + body + "</" + name + ">";
  }

  std::string Separator() {
    static const char* const kSeparators[] = {"",           "",      "",        " \n\t",
                                              "<!-- c -->", "stray", "<?pi x?>"};
    return OneOf(kSeparators);
  }

  // Markup escaped; control characters and bad bytes stay, so that a few
  // documents do not parse.
  static std::string Escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
      if (c == '<') {
        out += "&lt;";
      } else if (c == '&') {
        out += "&amp;";
      } else if (c == '\r') {
        out += "&#13;";
      } else {
        out += c;
      }
    }
    return out;
  }

  int Pick(size_t bound) { return trees_.Pick(bound); }

  TreeGenerator trees_;
};

}  // namespace QelSS::testing
