#include <gtest/gtest.h>

#include <cctype>
#include <sstream>
#include <string>
#include <tuple>

#include "foundation/string/OmCodeset.h"
#include "string_test_util.h"

namespace {

using namespace std::string_literals;

OmUniString U8(const std::string& s) { return OmUniString::FromUtf8(s); }
OmCodesetError err;
bool Encode(const std::string& set, const OmUniString& text, std::string& bytes) {
  OmByteBuffer b;
  const bool ok = text.AsCodeset(*OmCodeset::Find(set.c_str()), b, err);
  bytes.assign(reinterpret_cast<const char*>(b.Data()), b.Length());
  return ok;
}
bool Decode(const std::string& set, const std::string& in, OmUniString& text) {
  return OmUniString::CreateFrom(in.data(), in.size(), *OmCodeset::Find(set.c_str()), text, err);
}
auto Failure() { return std::make_tuple(static_cast<int>(err.What()), err.Position(), err.Unit()); }

// Every registered set with a text it holds and a character it lacks (if any).
const struct { const char *sets, *text, *foreign; } kSamples[] = {
    {"US-ASCII", "plain text ~", "é"},
    {"ISO-8859-1 ISO-8859-15 windows-1252 IBM437 IBM850 IBM00858 IBM860 IBM861 IBM863 IBM865 "
     "IBM037 IBM273 IBM500 IBM1047 macintosh",
     "Grüße, café", "中"},
    {"ISO-8859-2 ISO-8859-16 windows-1250 IBM852", "Łódź, żółć", "中"},
    {"ISO-8859-4 ISO-8859-10 ISO-8859-13 windows-1257", "Ąžuolas ėjo", "中"},
    {"ISO-8859-3 ISO-8859-9 windows-1254 IBM857", "İstanbul ğış", "中"},
    {"ISO-8859-14", "Ŵŷ ẁ", "中"},
    {"ISO-8859-5 KOI8-R KOI8-U windows-1251 IBM855 IBM866", "Привет, мир", "中"},
    {"ISO-8859-7 windows-1253 IBM869", "Καλημέρα", "中"},
    {"ISO-8859-8 windows-1255 IBM862", "שלום", "中"},
    {"ISO-8859-6 windows-1256", "مرحبا", "中"},
    {"IBM864", "ﻣﺭﺣﺑﺎ ١٢٣", "مرحبا"},  // presentation forms only
    {"TIS-620 windows-874", "สวัสดี", "中"},
    {"windows-1258", "Tiếng Việt", "中"},
    {"Shift_JIS Windows-31J EUC-JP ISO-2022-JP", "日本語のテキスト", "한"},
    {"GB2312 GBK", "简体中文", "ก"},
    {"Big5 Big5-HKSCS", "繁體中文", "ก"},
    {"EUC-KR ISO-2022-KR", "한국어 텍스트", "ก"},
    {"UTF-8 UTF-16 UTF-16BE UTF-16LE UTF-32 UTF-32BE UTF-32LE UTF-7 GB18030", "Aé€中😀", ""},
};

TEST(CodesetTest, EverySetRoundTripsRefusesWhatItLacksAndIsFoundByAnyName) {
  std::string covered = " ", bytes;
  OmUniString back;
  for (bool builtIn : {true, false}) {  // off: the in-line paths must agree with iconv
    OmCodeset::UseBuiltIn(builtIn);
    for (const auto& s : kSamples) {
      std::istringstream names(s.sets);
      for (std::string name; names >> name; covered += name + " ") {
        SCOPED_TRACE(name);
        const OmUniString text = U8(s.text);
        ASSERT_TRUE(Encode(name, text, bytes)) << err.Reason().AsUtf8();
        ASSERT_TRUE(Decode(name, bytes, back)) << err.Reason().AsUtf8();
        EXPECT_EQ(back, text);
        // Never replaced: the first unit that cannot go is reported by index.
        for (const OmUniString& odd : {U8(s.foreign), Units({0xDC00})}) {
          if (odd.IsEmpty()) continue;
          EXPECT_FALSE(Encode(name, text + odd + text, bytes));
          EXPECT_EQ(Failure(),
                    std::make_tuple(OmCodesetError::kUnencodable, text.Length(), odd[0]));
        }
      }
    }
  }
  OmCodeset::UseBuiltIn(true);
  for (unsigned i = 0; i < OmCodeset::Count(); ++i) {
    const OmCodeset& set = OmCodeset::At(i);
    EXPECT_TRUE(set.Available(err)) << err.Reason().AsUtf8();
    EXPECT_NE(covered.find(" "s + set.Name() + " "), std::string::npos) << set.Name();
    // Every name finds its own set (so none is shared), in any case.
    std::istringstream names(set.Name() + " "s + set.Aliases());
    for (std::string name; names >> name;) {
      EXPECT_EQ(OmCodeset::Find(name.c_str()), &set) << name;
      for (char& c : name) c = static_cast<char>(islower(c) ? toupper(c) : tolower(c));
      EXPECT_EQ(OmCodeset::Find(name.c_str()), &set) << name;
    }
  }
  for (const char* unknown : {"latin", "latin1 ", "", "utf-8\xC3\xA9"}) {
    EXPECT_EQ(OmCodeset::Find(unknown), nullptr) << unknown;
  }
  EXPECT_EQ(OmCodeset::Find(OmUniString("Utf-8")), &OmCodeset::For(OmEncoding::UTF8));
}

TEST(CodesetTest, KnownBytesAndMalformedInputOffsets) {
  // A null text: malformed at the offset.
  const struct { const char* set; std::string in; const char* text; unsigned long at; } cases[] = {
      // clang-format off
      {"ISO-8859-1", "\xE9", "é", 0},         {"UTF-8", "\xF0\x9F\x98\x80", "😀", 0},
      {"UTF-16", "\xFE\xFF\0\xE9"s, "é", 0}, {"UTF-16LE", "\x3D\xD8\0\xDE"s, "😀", 0},
      {"KOI8-R", "\xF6", "Ж", 0},             {"UTF-32", "\0\0\xFE\xFF\0\0\0A"s, "A", 0},
      {"Shift_JIS", "\x93\xFA", "日", 0},     {"ISO-2022-JP", "\x1B$BF|\x1B(B", "日", 0},
      {"IBM037", "\xC1", "A", 0},             {"GB18030", "\x94\x39\xFC\x36", "😀", 0},
      {"UTF-8", "ab\xC3(", nullptr, 2},       {"UTF-8", "a\xC0\xAF", nullptr, 1},
      {"UTF-8", "\xED\xA0\x80", nullptr, 0},  {"UTF-8", "ok\xF0\x9F\x98", nullptr, 2},
      {"US-ASCII", "ok\x80", nullptr, 2},     {"windows-1252", "a\x81", nullptr, 1},
      {"TIS-620", "ab\xFF", nullptr, 2},      {"Shift_JIS", "\x93\xFA\x81", nullptr, 2},
      {"GB18030", "\x81\x30\x81", nullptr, 0}, {"Big5", "\xA4\x40\xFF\xFF", nullptr, 2},
      {"UTF-16", "\xFF\xFE\x41\0\0\xDC"s, nullptr, 4},  {"UTF-16LE", "A\0B"s, nullptr, 2},
      // clang-format on
  };
  OmUniString text;
  std::string bytes;
  for (bool builtIn : {true, false}) {
    OmCodeset::UseBuiltIn(builtIn);
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.set) + " " + testing::PrintToString(c.in));
      const bool ok = Decode(c.set, c.in, text);
      if (c.text != nullptr) {
        EXPECT_TRUE(ok && text == U8(c.text)) << err.Reason().AsUtf8();
        EXPECT_TRUE(Encode(c.set, U8(c.text), bytes) && bytes == c.in);
      } else {
        EXPECT_FALSE(ok || !text.IsEmpty());
        EXPECT_EQ(Failure(), std::make_tuple(OmCodesetError::kMalformed, c.at, 0u));
      }
    }
  }
  OmCodeset::UseBuiltIn(true);
  EXPECT_TRUE(Decode("UTF-16", "\xFF\xFE\xE9\0"s, text) && text == U8("é"));  // either mark
  EXPECT_TRUE(Decode("UTF-16", "\0\xE9"s, text) && text == U8("é"));  // unmarked: big-endian
  EXPECT_FALSE(Decode("US-ASCII", "a\xE9", text));
  EXPECT_EQ(err.Reason(), "US-ASCII: malformed input at byte 1");
  EXPECT_FALSE(Encode("latin1", U8("ab中"), bytes));
  EXPECT_EQ(err.Reason(), "ISO-8859-1: unit 2 (U+4E2D) cannot be encoded");
}

}  // namespace
