#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "foundation/string/OmUniString.h"
#include "string_test_util.h"

namespace {

TEST(IntegerConversionTest, AllFourForms) {
  const struct {
    OmUniString text;
    int32_t i32;
    uint32_t u32;
    uint16_t u16;
    uint64_t u64;
  } cases[] = {
      {"", 0, 0, 0, 0},
      {"12345", 12345, 12345, 12345, 12345},
      {"007", 7, 7, 7, 7},
      {"-0", 0, 0, 0, 0},
      // Only the 32-bit forms take a sign.
      {"-5", -5, 4294967291u, 0, 0},
      {"-2147483648", INT32_MIN, 2147483648u, 0, 0},
      {"-", 0, 0, 0, 0},
      {"--5", 0, 0, 0, 0},
      // Each form wraps in its own width; the 16-bit one after 32-bit accumulation.
      {"4294967296", 0, 0, 0, 4294967296u},
      {"4294967297", 1, 1, 1, 4294967297u},
      {"65537", 65537, 65537, 1, 65537},
      {"18446744073709551616", 0, 0, 0, 0},
      // The scan stops at the first non-digit; no blanks, no plus sign.
      {"-12ab", -12, 4294967284u, 0, 0},
      {"3.7", 3, 3, 3, 3},
      {" 12", 0, 0, 0, 0},
      {"+5", 0, 0, 0, 0},
      {Units({0x0661, 0x0662}), 12, 12, 12, 12},           // Arabic-Indic
      {Units({0x0e53, '5', 0x06f4}), 354, 354, 354, 354},  // mixed scripts
      {Units({'1', 0x00b2}), 12, 12, 12, 12},              // superscript two
      {Units({'-', 0x0967, 0x0966}), -10, 4294967286u, 0, 0},
      {Units({0x0be7, 0x0be6}), 1, 1, 1, 1},  // Tamil has no zero digit
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(c.text.AsInt32(), c.i32);
    EXPECT_EQ(c.text.AsUint32(), c.u32);
    EXPECT_EQ(c.text.AsUint16(), c.u16);
    EXPECT_EQ(c.text.AsUint64(), c.u64);
  }
  EXPECT_EQ(OmUniString("18446744073709551615").AsUint64(), UINT64_MAX);
}

TEST(IntegerConversionTest, DigitValue) {
  const OmUniString::Unit blocks[] = {0x0030, 0x0660, 0x06f0, 0x0966, 0x09e6, 0x0a66,
                                      0x0ae6, 0x0b66, 0x0c66, 0x0ce6, 0x0d66, 0x0e50,
                                      0x0ed0, 0x0f20, 0x2080, 0xff10};
  for (OmUniString::Unit start : blocks) {
    for (int d = 0; d < 10; ++d) {
      EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start + d)), d)
          << std::hex << start << " + " << d;
    }
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start - 1)), -1) << start;
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start + 10)), -1) << start;
  }
  // Scattered digits: superscripts and Tamil one to nine.
  const struct {
    OmUniString::Unit unit;
    int value;
  } singles[] = {{0x00b2, 2},  {0x00b3, 3},  {0x00b9, 1},  {0x2070, 0},  {0x2074, 4},
                 {0x2079, 9},  {0x0be7, 1},  {0x0bef, 9},  {0x00b1, -1}, {0x00ba, -1},
                 {0x0be6, -1}, {0x0bf0, -1}, {0x2071, -1}, {0x2073, -1}, {0x207a, -1},
                 {'a', -1},    {0x4e00, -1}, {0xffff, -1}};
  for (const auto& s : singles) {
    EXPECT_EQ(OmUniString::DigitValue(s.unit), s.value) << std::hex << s.unit;
  }
}

TEST(IntegerConversionTest, CreateFromUnsigned) {
  EXPECT_EQ(OmUniString::CreateFromUnsigned(0), "0");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(10), "10");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(4294967295u), "4294967295");
}

std::string Text(const OmByteBuffer& b) {
  return std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}

TEST(EncodingTest, Utf8RoundTrip) {
  const OmUniString s = Units({'c', 0x00e9, ' ', 0x20ac, 0x007f, 0x0080, 0x07ff, 0x0800, 0xfffd});
  const std::string bytes = "c\xc3\xa9 \xe2\x82\xac\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbd";
  EXPECT_EQ(Text(s.AsEncoding(OmEncoding::UTF8)), bytes);
  EXPECT_EQ(s.AsUtf8(), bytes);
  EXPECT_EQ(OmUniString::FromUtf8(bytes), s);
  EXPECT_EQ(OmUniString::CreateFrom(s.AsEncoding(OmEncoding::UTF8), OmEncoding::UTF8), s);
  EXPECT_EQ(OmUniString().AsUtf8(), "");
}

TEST(EncodingTest, AsciiReplacesWhatItCannotHold) {
  const OmUniString s = Units({'a', 0x00e9, 'b', 0x20ac});
  EXPECT_EQ(Text(s.AsEncoding(OmEncoding::USASCII)), "a?b?");
  EXPECT_EQ(s.AsAscii(), "a?b?");
  const unsigned char raw[] = {'o', 'k', 0xc3};
  EXPECT_EQ(OmUniString::CreateFrom(raw, sizeof raw, OmEncoding::USASCII),
            Units({'o', 'k', 0xfffd}));
}

TEST(EncodingTest, Latin1IsByteTransparent) {
  unsigned char all[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
  const OmUniString s = OmUniString::CreateFrom(all, sizeof all, OmEncoding::LATIN1);
  ASSERT_EQ(s.Length(), 256u);
  for (unsigned i = 0; i < 256; ++i) EXPECT_EQ(s[i], i);
  EXPECT_EQ(s.AsEncoding(OmEncoding::LATIN1), OmByteBuffer(all, sizeof all));
  EXPECT_EQ(Units({'x', 0x0100}).AsEncoding(OmEncoding::LATIN1), OmByteBuffer("x?"));
}

}  // namespace
