#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "foundation/string/OmCodeset.h"
#include "string_test_util.h"

namespace {

using namespace std::string_literals;

OmUniString U8(const std::string& s) { return OmUniString::FromUtf8(s); }
std::string Text(const OmByteBuffer& b) {
  return std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}
const OmCodeset& Set(const char* name) { return *OmCodeset::Find(name); }

// Every registered set with a text it holds and a character it lacks.
const struct {
  const char* sets;
  const char* text;
  const char* foreign;  // empty: the set holds every character
} kSamples[] = {
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

TEST(CodesetTest, EverySetRoundTripsItsTextAndRefusesWhatItLacks) {
  std::string covered = " ";
  // Off: the in-line ASCII, Latin-1 and UTF-8 paths must agree with iconv.
  for (bool builtIn : {true, false}) {
    OmCodeset::UseBuiltIn(builtIn);
    for (const auto& s : kSamples) {
      std::istringstream names(s.sets);
      for (std::string name; names >> name;) {
        SCOPED_TRACE(name);
        covered += name + " ";
        const OmUniString text = U8(s.text);
        OmByteBuffer bytes;
        OmUniString back;
        OmCodesetError err;
        ASSERT_TRUE(text.AsCodeset(Set(name.c_str()), bytes, err)) << err.Reason().AsUtf8();
        ASSERT_TRUE(OmUniString::CreateFrom(bytes.Data(), bytes.Length(), Set(name.c_str()),
                                            back, err)) << err.Reason().AsUtf8();
        EXPECT_EQ(back, text);
        // Never replaced: the first unit that cannot go is reported by index.
        for (const OmUniString& odd : {U8(s.foreign), Units({0xDC00})}) {
          if (odd.IsEmpty()) continue;
          EXPECT_FALSE((text + odd + text).AsCodeset(Set(name.c_str()), bytes, err));
          EXPECT_EQ(err.What(), OmCodesetError::kUnencodable);
          EXPECT_EQ(err.Position(), text.Length());
          EXPECT_EQ(err.Unit(), odd[0]);
        }
      }
    }
  }
  OmCodeset::UseBuiltIn(true);
  for (unsigned i = 0; i < OmCodeset::Count(); ++i) {
    const OmCodeset& set = OmCodeset::At(i);
    OmCodesetError err;
    EXPECT_TRUE(set.Available(err)) << err.Reason().AsUtf8();
    EXPECT_NE(covered.find(" "s + set.Name() + " "), std::string::npos) << set.Name();
    // No alias is shared between two sets.
    std::istringstream aliases(set.Aliases());
    for (std::string a; aliases >> a;) EXPECT_EQ(OmCodeset::Find(a.c_str()), &set) << a;
  }
}

TEST(CodesetTest, KnownBytesAndMalformedInputOffsets) {
  const struct {
    const char* set;
    std::string bytes;
    const char* text;  // null: malformed at `offset`
    unsigned long offset;
  } cases[] = {
      {"ISO-8859-1", "\xE9", "é", 0},
      {"UTF-8", "\xF0\x9F\x98\x80", "😀", 0},
      {"UTF-16", "\xFE\xFF\x00\xE9"s, "é", 0},
      {"UTF-16LE", "\x3D\xD8\x00\xDE"s, "😀", 0},
      {"UTF-32", "\x00\x00\xFE\xFF\x00\x00\x00\x41"s, "A", 0},
      {"KOI8-R", "\xF6", "Ж", 0},
      {"Shift_JIS", "\x93\xFA", "日", 0},
      {"ISO-2022-JP", "\x1B$BF|\x1B(B", "日", 0},
      {"GB18030", "\x94\x39\xFC\x36", "😀", 0},
      {"IBM037", "\xC1", "A", 0},
      {"UTF-8", "ab\xC3(", nullptr, 2},         // bad continuation
      {"UTF-8", "a\xC0\xAF", nullptr, 1},       // overlong
      {"UTF-8", "\xED\xA0\x80", nullptr, 0},    // encoded surrogate
      {"UTF-8", "ok\xF0\x9F\x98", nullptr, 2},  // truncated
      {"US-ASCII", "ok\x80", nullptr, 2},
      {"windows-1252", "a\x81", nullptr, 1},  // unassigned
      {"TIS-620", "ab\xFF", nullptr, 2},
      {"Shift_JIS", "\x93\xFA\x81", nullptr, 2},
      {"GB18030", "\x81\x30\x81", nullptr, 0},
      {"Big5", "\xA4\x40\xFF\xFF", nullptr, 2},
      {"UTF-16LE", "A\0B"s, nullptr, 2},
      {"UTF-16", "\xFF\xFE\x41\x00\x00\xDC"s, nullptr, 4},  // offsets count the mark
  };
  for (bool builtIn : {true, false}) {
    OmCodeset::UseBuiltIn(builtIn);
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.set) + " " + testing::PrintToString(c.bytes));
      OmUniString text;
      OmByteBuffer bytes;
      OmCodesetError err;
      const bool ok = OmUniString::CreateFrom(c.bytes.data(), c.bytes.size(), Set(c.set), text, err);
      if (c.text != nullptr) {
        EXPECT_TRUE(ok) << err.Reason().AsUtf8();
        EXPECT_EQ(text, U8(c.text));
        EXPECT_TRUE(U8(c.text).AsCodeset(Set(c.set), bytes, err));
        EXPECT_EQ(Text(bytes), c.bytes);
      } else {
        EXPECT_FALSE(ok);
        EXPECT_EQ(err.What(), OmCodesetError::kMalformed);
        EXPECT_EQ(err.Position(), c.offset);
        EXPECT_TRUE(text.IsEmpty());
      }
    }
  }
  OmCodeset::UseBuiltIn(true);
  OmUniString text;
  OmCodesetError err;
  // Either mark is honoured; unmarked UTF-16 is big-endian.
  EXPECT_TRUE(OmUniString::CreateFrom("\xFF\xFE\xE9\x00", 4, Set("UTF-16"), text, err));
  EXPECT_EQ(text, U8("é"));
  EXPECT_TRUE(OmUniString::CreateFrom("\x00\xE9", 2, Set("UTF-16"), text, err));
  EXPECT_EQ(text, U8("é"));
  EXPECT_FALSE(OmUniString::CreateFrom("a\xE9", 2, Set("US-ASCII"), text, err));
  EXPECT_EQ(err.Reason(), "US-ASCII: malformed input at byte 1");
  OmByteBuffer bytes;
  EXPECT_FALSE(U8("ab中").AsCodeset(Set("latin1"), bytes, err));
  EXPECT_EQ(err.Reason(), "ISO-8859-1: unit 2 (U+4E2D) cannot be encoded");
}

TEST(CodesetTest, NamesAndAliasesIgnoreCase) {
  const struct {
    const char* name;
    const char* canonical;  // null: unknown
  } cases[] = {
      {"utf8", "UTF-8"},          {"Latin1", "ISO-8859-1"},    {"iso_8859-1:1987", "ISO-8859-1"},
      {"CP819", "ISO-8859-1"},    {"ansi_x3.4-1968", "US-ASCII"}, {"US", "US-ASCII"},
      {"CP1252", "windows-1252"}, {"SJIS", "Shift_JIS"},       {"ms_kanji", "Shift_JIS"},
      {"koi8-r", "KOI8-R"},       {"EBCDIC-CP-US", "IBM037"},  {"utf-16", "UTF-16"},
      {"latin", nullptr},         {"latin1 ", nullptr},        {"", nullptr},
      {"klingon", nullptr},
  };
  for (const auto& c : cases) {
    const OmCodeset* set = OmCodeset::Find(c.name);
    EXPECT_STREQ(set != nullptr ? set->Name() : nullptr, c.canonical) << c.name;
  }
  EXPECT_EQ(OmCodeset::Find(OmUniString("Utf-8")), &OmCodeset::For(OmEncoding::UTF8));
  EXPECT_EQ(OmCodeset::Find(U8("utf-8é")), nullptr);
}

}  // namespace
