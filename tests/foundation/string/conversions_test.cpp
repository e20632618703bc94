#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "foundation/string/OmUniString.h"
#include "string_test_util.h"

namespace {

// Numbers in requests and settings: a sign wraps, and so does a 33rd bit.
TEST(IntegerConversionTest, Uint32) {
  const struct {
    OmUniString text;
    uint32_t value;
  } cases[] = {
      {"", 0},
      {"12345", 12345},
      {"-0", 0},
      {"-5", 4294967291u},
      {"--5", 0},
      {"4294967296", 0},
      // The scan stops at the first non-digit; no blanks, no plus sign.
      {"3.7", 3},
      {" 12", 0},
      {"+5", 0},
      {Units({0x0661, 0x0662}), 12},         // Arabic-Indic
      {Units({0x0e53, '5', 0x06f4}), 354},  // mixed scripts
      {Units({0x0be7, 0x0be6}), 1},         // Tamil has no zero digit
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.text.AsUint32(), c.value) << testing::PrintToString(c.text);
  }
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
