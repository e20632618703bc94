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
      {"-0", 0, 0, 0, 0},
      // Only the 32-bit forms take a sign.
      {"-5", -5, 4294967291u, 0, 0},
      {"--5", 0, 0, 0, 0},
      // Each form wraps in its own width; the 16-bit one after 32-bit accumulation.
      {"4294967296", 0, 0, 0, 4294967296u},
      {"65537", 65537, 65537, 1, 65537},
      // The scan stops at the first non-digit; no blanks, no plus sign.
      {"3.7", 3, 3, 3, 3},
      {" 12", 0, 0, 0, 0},
      {"+5", 0, 0, 0, 0},
      {Units({0x0661, 0x0662}), 12, 12, 12, 12},           // Arabic-Indic
      {Units({0x0e53, '5', 0x06f4}), 354, 354, 354, 354},  // mixed scripts
      {Units({0x0be7, 0x0be6}), 1, 1, 1, 1},               // Tamil has no zero digit
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.text));
    EXPECT_EQ(c.text.AsInt32(), c.i32);
    EXPECT_EQ(c.text.AsUint32(), c.u32);
    EXPECT_EQ(c.text.AsUint16(), c.u16);
    EXPECT_EQ(c.text.AsUint64(), c.u64);
  }
  EXPECT_EQ(OmUniString("18446744073709551615").AsUint64(), UINT64_MAX);
  EXPECT_EQ(OmUniString::CreateFromUnsigned(4294967295u), "4294967295");
}

std::string Text(const OmByteBuffer& b) {
  return std::string(reinterpret_cast<const char*>(b.Data()), b.Length());
}

TEST(EncodingTest, Utf8AsciiAndLatin1) {
  const OmUniString s = Units({'c', 0x00e9, ' ', 0x20ac, 0x007f, 0x0080, 0x07ff, 0x0800, 0xfffd});
  const std::string bytes = "c\xc3\xa9 \xe2\x82\xac\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbd";
  EXPECT_EQ(Text(s.AsEncoding(OmEncoding::UTF8)), bytes);
  EXPECT_EQ(OmUniString::FromUtf8(bytes), s);

  // Units an encoding cannot hold become '?'; bad input bytes become U+FFFD.
  EXPECT_EQ(Units({'a', 0x00e9, 'b', 0x20ac}).AsAscii(), "a?b?");
  const unsigned char raw[] = {'o', 'k', 0xc3};
  EXPECT_EQ(OmUniString::CreateFrom(raw, sizeof raw, OmEncoding::USASCII),
            Units({'o', 'k', 0xfffd}));
  EXPECT_EQ(OmUniString::CreateFrom(raw, sizeof raw, OmEncoding::LATIN1),
            Units({'o', 'k', 0x00c3}));
  EXPECT_EQ(Units({'x', 0x0100}).AsEncoding(OmEncoding::LATIN1), OmByteBuffer("x?"));
}

}  // namespace
