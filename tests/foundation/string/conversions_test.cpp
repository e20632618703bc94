#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "foundation/string/OmUniString.h"
#include "string_test_util.h"

namespace {

struct AllFour {
  int32_t i32;
  uint32_t u32;
  uint16_t u16;
  uint64_t u64;
};

AllFour Convert(const OmUniString& s) {
  return {s.AsInt32(), s.AsUint32(), s.AsUint16(), s.AsUint64()};
}

TEST(IntegerConversionTest, EmptyGivesZero) {
  AllFour v = Convert(OmUniString());
  EXPECT_EQ(v.i32, 0);
  EXPECT_EQ(v.u32, 0u);
  EXPECT_EQ(v.u16, 0u);
  EXPECT_EQ(v.u64, 0u);
}

TEST(IntegerConversionTest, PlainDecimal) {
  AllFour v = Convert("12345");
  EXPECT_EQ(v.i32, 12345);
  EXPECT_EQ(v.u32, 12345u);
  EXPECT_EQ(v.u16, 12345u);
  EXPECT_EQ(v.u64, 12345u);
  EXPECT_EQ(OmUniString("007").AsUint32(), 7u);
}

TEST(IntegerConversionTest, MinusZeroGivesZeroFromAllFour) {
  AllFour v = Convert("-0");
  EXPECT_EQ(v.i32, 0);
  EXPECT_EQ(v.u32, 0u);
  EXPECT_EQ(v.u16, 0u);
  EXPECT_EQ(v.u64, 0u);
}

TEST(IntegerConversionTest, NegativeOnlyForTheThirtyTwoBitForms) {
  AllFour v = Convert("-5");
  EXPECT_EQ(v.i32, -5);
  EXPECT_EQ(v.u32, 4294967291u);
  EXPECT_EQ(v.u16, 0u);
  EXPECT_EQ(v.u64, 0u);
  EXPECT_EQ(OmUniString("-1").AsUint32(), 4294967295u);
  EXPECT_EQ(OmUniString("-2147483648").AsInt32(), INT32_MIN);
}

TEST(IntegerConversionTest, LoneMinusGivesZero) {
  AllFour v = Convert("-");
  EXPECT_EQ(v.i32, 0);
  EXPECT_EQ(v.u32, 0u);
  EXPECT_EQ(v.u16, 0u);
  EXPECT_EQ(v.u64, 0u);
  EXPECT_EQ(OmUniString("--5").AsInt32(), 0);
  EXPECT_EQ(OmUniString("-x").AsInt32(), 0);
}

TEST(IntegerConversionTest, ValuesWrapInTheirOwnWidth) {
  EXPECT_EQ(OmUniString("4294967296").AsUint32(), 0u);
  EXPECT_EQ(OmUniString("4294967297").AsUint32(), 1u);
  EXPECT_EQ(OmUniString("4294967295").AsUint32(), 4294967295u);
  EXPECT_EQ(OmUniString("2147483648").AsInt32(), INT32_MIN);
  EXPECT_EQ(OmUniString("4294967295").AsInt32(), -1);
  EXPECT_EQ(OmUniString("4294967296").AsUint64(), 4294967296u);
  EXPECT_EQ(OmUniString("18446744073709551615").AsUint64(), UINT64_MAX);
  EXPECT_EQ(OmUniString("18446744073709551616").AsUint64(), 0u);
}

TEST(IntegerConversionTest, SixteenBitKeepsTheLowBits) {
  EXPECT_EQ(OmUniString("65535").AsUint16(), 65535u);
  EXPECT_EQ(OmUniString("65536").AsUint16(), 0u);
  EXPECT_EQ(OmUniString("65537").AsUint16(), 1u);
  EXPECT_EQ(OmUniString("131071").AsUint16(), 65535u);
  // Accumulated in 32 bits first: 4294967297 wraps to 1 there.
  EXPECT_EQ(OmUniString("4294967297").AsUint16(), 1u);
}

TEST(IntegerConversionTest, ScanStopsAtTheFirstNonDigit) {
  EXPECT_EQ(OmUniString("12ab").AsUint32(), 12u);
  EXPECT_EQ(OmUniString("12ab").AsInt32(), 12);
  EXPECT_EQ(OmUniString("12ab").AsUint16(), 12u);
  EXPECT_EQ(OmUniString("12ab").AsUint64(), 12u);
  EXPECT_EQ(OmUniString("ab").AsUint32(), 0u);
  EXPECT_EQ(OmUniString("-12ab").AsInt32(), -12);
  EXPECT_EQ(OmUniString("1 2").AsUint32(), 1u);
  EXPECT_EQ(OmUniString("3.7").AsUint32(), 3u);
}

TEST(IntegerConversionTest, NoBlanksNoPlusSign) {
  AllFour blank = Convert(" 12");
  EXPECT_EQ(blank.i32, 0);
  EXPECT_EQ(blank.u32, 0u);
  EXPECT_EQ(blank.u16, 0u);
  EXPECT_EQ(blank.u64, 0u);
  AllFour plus = Convert("+5");
  EXPECT_EQ(plus.i32, 0);
  EXPECT_EQ(plus.u32, 0u);
  EXPECT_EQ(plus.u16, 0u);
  EXPECT_EQ(plus.u64, 0u);
}

TEST(IntegerConversionTest, DigitsOfOtherScripts) {
  EXPECT_EQ(Units({0x0661, 0x0662}).AsUint32(), 12u);          // Arabic-Indic
  EXPECT_EQ(Units({0xff11, 0xff19}).AsUint32(), 19u);          // full-width
  EXPECT_EQ(Units({0x2083, 0x2087}).AsUint32(), 37u);          // subscript
  EXPECT_EQ(Units({'1', 0x00b2}).AsUint32(), 12u);             // superscript two
  EXPECT_EQ(Units({0x0be7}).AsUint32(), 1u);                   // Tamil one
  EXPECT_EQ(Units({'-', 0x0967, 0x0966}).AsInt32(), -10);      // Devanagari
  EXPECT_EQ(Units({0x0e53, '5', 0x06f4}).AsUint64(), 354u);    // mixed scripts
  // Tamil has no zero among the digits: the scan stops there.
  EXPECT_EQ(Units({0x0be7, 0x0be6}).AsUint32(), 1u);
}

TEST(IntegerConversionTest, DigitValueOfEveryBlock) {
  const OmUniString::Unit starts[] = {0x0030, 0x0660, 0x06f0, 0x0966, 0x09e6, 0x0a66,
                                      0x0ae6, 0x0b66, 0x0c66, 0x0ce6, 0x0d66, 0x0e50,
                                      0x0ed0, 0x0f20, 0x2080, 0xff10};
  for (OmUniString::Unit start : starts) {
    for (int d = 0; d < 10; ++d) {
      EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start + d)), d)
          << std::hex << start << " + " << d;
    }
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start - 1)), -1)
        << std::hex << start;
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(start + 10)), -1)
        << std::hex << start;
  }
}

TEST(IntegerConversionTest, DigitValueOfSingleUnits) {
  EXPECT_EQ(OmUniString::DigitValue(0x00b2), 2);
  EXPECT_EQ(OmUniString::DigitValue(0x00b3), 3);
  EXPECT_EQ(OmUniString::DigitValue(0x00b9), 1);
  EXPECT_EQ(OmUniString::DigitValue(0x2070), 0);
  for (int d = 4; d <= 9; ++d) {
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(0x2070 + d)), d);
  }
  for (int d = 1; d <= 9; ++d) {
    EXPECT_EQ(OmUniString::DigitValue(static_cast<OmUniString::Unit>(0x0be6 + d)), d);
  }
  // Neighbours that are not in the table.
  for (OmUniString::Unit u : {0x00b1, 0x00b4, 0x00b8, 0x00ba, 0x0be6, 0x0bf0, 0x2071,
                              0x2072, 0x2073, 0x207a}) {
    EXPECT_EQ(OmUniString::DigitValue(u), -1) << std::hex << u;
  }
}

TEST(IntegerConversionTest, DigitValueOfNonDigits) {
  for (OmUniString::Unit u : {0x61, 0x20, 0x2d, 0x2b, 0x0000, 0x00ff, 0x4e00, 0xfffd, 0xffff}) {
    EXPECT_EQ(OmUniString::DigitValue(u), -1) << std::hex << u;
  }
}

TEST(IntegerConversionTest, CreateFromUnsigned) {
  EXPECT_EQ(OmUniString::CreateFromUnsigned(0), "0");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(7), "7");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(10), "10");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(1000), "1000");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(4294967295u), "4294967295");
  EXPECT_EQ(OmUniString::CreateFromUnsigned(123456).AsUint32(), 123456u);
}

TEST(EncodingTest, Utf8RoundTrip) {
  OmUniString s = Units({'c', 'a', 'f', 0x00e9, ' ', 0x20ac});  // "café €"
  OmByteBuffer bytes = s.AsEncoding(OmEncoding::UTF8);
  const std::string expected = "caf\xc3\xa9 \xe2\x82\xac";
  ASSERT_EQ(bytes.Length(), expected.size());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.Data()), bytes.Length()), expected);
  EXPECT_EQ(OmUniString::CreateFrom(bytes, OmEncoding::UTF8), s);

  EXPECT_EQ(s.AsUtf8(), expected);
  EXPECT_EQ(OmUniString::FromUtf8(expected), s);
}

TEST(EncodingTest, Utf8OfAsciiIsTheSameBytes) {
  EXPECT_EQ(OmUniString("plain text").AsUtf8(), "plain text");
  EXPECT_EQ(OmUniString::FromUtf8("plain text"), "plain text");
  EXPECT_EQ(OmUniString().AsUtf8(), "");
  EXPECT_TRUE(OmUniString::FromUtf8("").IsEmpty());
}

TEST(EncodingTest, Utf8LengthBoundaries) {
  OmUniString s = Units({0x007f, 0x0080, 0x07ff, 0x0800, 0xfffd});
  EXPECT_EQ(s.AsUtf8(), "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbd");
  EXPECT_EQ(OmUniString::FromUtf8(s.AsUtf8()), s);
}

TEST(EncodingTest, AsciiEncodeReplacesNonAscii) {
  OmUniString s = Units({'a', 0x00e9, 'b', 0x20ac});
  OmByteBuffer bytes = s.AsEncoding(OmEncoding::USASCII);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.Data()), bytes.Length()), "a?b?");
  EXPECT_EQ(s.AsAscii(), "a?b?");
}

TEST(EncodingTest, AsciiDecodeReplacesHighBytes) {
  const unsigned char raw[] = {'o', 'k', 0xc3};
  OmUniString s = OmUniString::CreateFrom(raw, sizeof raw, OmEncoding::USASCII);
  EXPECT_EQ(s, Units({'o', 'k', 0xfffd}));
}

TEST(EncodingTest, Latin1IsByteTransparent) {
  unsigned char all[256];
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
  OmUniString s = OmUniString::CreateFrom(all, sizeof all, OmEncoding::LATIN1);
  ASSERT_EQ(s.Length(), 256u);
  for (unsigned i = 0; i < 256; ++i) EXPECT_EQ(s[i], i);
  OmByteBuffer back = s.AsEncoding(OmEncoding::LATIN1);
  EXPECT_EQ(back, OmByteBuffer(all, sizeof all));

  EXPECT_EQ(Units({'x', 0x0100}).AsEncoding(OmEncoding::LATIN1), OmByteBuffer("x?"));
}

}  // namespace
