#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include <gtest/gtest.h>

#include "foundation/string/OmError.h"
#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmTimeVal.h"
#include "string_test_util.h"

namespace {

TEST(TimeValTest, ConstructorCarriesMicroseconds) {
  OmTimeVal t(5, 2500000);
  EXPECT_EQ(t.seconds, 7u);
  EXPECT_EQ(t.microseconds, 500000u);

  OmTimeVal edge(5, 999999);
  EXPECT_EQ(edge.seconds, 5u);
  EXPECT_EQ(edge.microseconds, 999999u);

  OmTimeVal exact(5, 1000000);
  EXPECT_EQ(exact.seconds, 6u);
  EXPECT_EQ(exact.microseconds, 0u);
}

TEST(TimeValTest, NormaliseFixesFieldsSetByHand) {
  OmTimeVal t;
  t.seconds = 10;
  t.microseconds = 3000001;
  t.Normalise();
  EXPECT_EQ(t.seconds, 13u);
  EXPECT_EQ(t.microseconds, 1u);
}

TEST(TimeValTest, Arithmetic) {
  OmTimeVal t = OmTimeVal(1, 600000).PlusMilliseconds(2500);
  EXPECT_EQ(t.seconds, 4u);
  EXPECT_EQ(t.microseconds, 100000u);
  OmTimeVal u = OmTimeVal(1, 999000).PlusMilliseconds(1);
  EXPECT_EQ(u.seconds, 2u);
  EXPECT_EQ(u.microseconds, 0u);
  OmTimeVal v = OmTimeVal(100, 42).PlusSeconds(5);
  EXPECT_EQ(v.seconds, 105u);
  EXPECT_EQ(v.microseconds, 42u);
}

TEST(TimeValTest, Comparison) {
  OmTimeVal a(5, 1);
  OmTimeVal b(5, 2);
  OmTimeVal c(6, 0);
  OmTimeVal d(5, 999999);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(d, c);
  EXPECT_GT(c, a);
  EXPECT_LE(a, OmTimeVal(5, 1));
  EXPECT_GE(a, OmTimeVal(5, 1));
  EXPECT_EQ(a, OmTimeVal(5, 1));
  EXPECT_NE(a, b);
  EXPECT_LT(a.Compare(b), 0);
  EXPECT_GT(c.Compare(d), 0);
  EXPECT_EQ(a.Compare(OmTimeVal(4, 1000001)), 0);
  // Seconds are unsigned: late times stay late.
  EXPECT_LT(OmTimeVal(0x7fffffff, 0), OmTimeVal(0x80000000u, 0));
}

TEST(TimeValTest, Rfc1123) {
  EXPECT_EQ(OmTimeVal(0, 0).AsRFC1123(), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(OmTimeVal(1700000000, 0).AsRFC1123(), "Tue, 14 Nov 2023 22:13:20 GMT");
  EXPECT_EQ(OmTimeVal(951782400, 999999).AsRFC1123(), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(OmTimeVal(4294967295u, 0).AsRFC1123(), "Sun, 07 Feb 2106 06:28:15 GMT");
}

TEST(TimeValTest, FillInTMStructIsUtc) {
  struct tm tm;
  std::memset(&tm, 0, sizeof tm);
  ASSERT_TRUE(OmTimeVal(1700000000, 0).FillInTMStruct(tm));
  EXPECT_EQ(tm.tm_year, 123);
  EXPECT_EQ(tm.tm_mon, 10);
  EXPECT_EQ(tm.tm_mday, 14);
  EXPECT_EQ(tm.tm_hour, 22);
  EXPECT_EQ(tm.tm_min, 13);
  EXPECT_EQ(tm.tm_sec, 20);
  EXPECT_EQ(tm.tm_wday, 2);
}

OmTimeVal FakeNow() { return OmTimeVal(1234, 5678); }

class TimeValClockTest : public ::testing::Test {
 protected:
  void TearDown() override { OmTimeVal::SetClock(nullptr); }
};

TEST_F(TimeValClockTest, FakeClockIsUsedByNow) {
  OmTimeVal::SetClock(&FakeNow);
  EXPECT_EQ(OmTimeVal::now(), OmTimeVal(1234, 5678));
  EXPECT_EQ(OmTimeVal::now().Time(), 1234u);
}

TEST_F(TimeValClockTest, NullRestoresTheRealClock) {
  OmTimeVal::SetClock(&FakeNow);
  OmTimeVal::SetClock(nullptr);
  OmTimeVal t = OmTimeVal::now();
  long real = static_cast<long>(time(nullptr));
  EXPECT_NEAR(static_cast<long>(t.Time()), real, 2);
  EXPECT_LT(t.microseconds, 1000000u);
}

TEST_F(TimeValClockTest, SystemNowIgnoresTheFakeClock) {
  OmTimeVal::SetClock(&FakeNow);
  OmTimeVal t = OmTimeVal::SystemNow();
  EXPECT_NEAR(static_cast<long>(t.Time()), static_cast<long>(time(nullptr)), 2);
  EXPECT_LT(t.microseconds, 1000000u);
}

TEST(ErrorTest, BaseReasonIsTheMessage) {
  EXPECT_EQ(OmError(OmUniString("something broke")).Reason(), "something broke");
  EXPECT_EQ(OmError().Reason(), "");
}

TEST(ErrorTest, UnixErrorReason) {
  OmUnixError e(ENOENT, "open", "x");
  EXPECT_EQ(e.Reason(), "open(x): No such file or directory");
  EXPECT_EQ(e.Errno(), ENOENT);
  EXPECT_EQ(e.Call(), "open");
  EXPECT_EQ(e.Args(), "x");

  e.Set(EBADF, "read", "fd=3, len=10");
  EXPECT_EQ(e.Reason(), "read(fd=3, len=10): Bad file descriptor");

  // A call without arguments still gets the brackets.
  EXPECT_EQ(OmUnixError(EACCES, "socket").Reason(), "socket(): Permission denied");
}

TEST(ErrorTest, UnixErrorWithoutCallIsTheSystemText) {
  EXPECT_EQ(OmUnixError(EACCES, OmUniString()).Reason(), "Permission denied");
}

TEST(ErrorTest, ReasonThroughTheBaseClass) {
  OmUnixError unix_error(EPIPE, "write", "fd=4");
  const OmError& base = unix_error;
  EXPECT_EQ(base.Reason(), "write(fd=4): Broken pipe");
}

TEST(ErrorTest, ConfigurationErrorReason) {
  OmConfigurationError e("Port", "abc", "not a number");
  EXPECT_EQ(e.Reason(), "Key Port gave list abc: Failure: not a number");
}

TEST(OSStreamTest, StringsAndNumbers) {
  OmOSStream os;
  os << "x=" << -12 << ", " << OmUniString("y") << "=" << 0;
  EXPECT_EQ(os.Str(), "x=-12, y=0");
}

TEST(OSStreamTest, IntegerLimits) {
  OmOSStream os;
  os << 18446744073709551615ULL;
  EXPECT_EQ(os.Str(), "18446744073709551615");
  os.Truncate();
  os << LLONG_MIN;
  EXPECT_EQ(os.Str(), "-9223372036854775808");
  os.Truncate();
  os << INT_MIN << " " << 4294967295u << " " << -1L << " " << 10UL;
  EXPECT_EQ(os.Str(), "-2147483648 4294967295 -1 10");
}

TEST(OSStreamTest, Scalars) {
  OmOSStream os;
  os << OmScalar<int>(-3) << "/" << OmScalar<unsigned>(7);
  EXPECT_EQ(os.Str(), "-3/7");
}

TEST(OSStreamTest, TruncateEmpties) {
  OmOSStream os;
  os << "old text";
  os.Truncate();
  EXPECT_TRUE(os.Str().IsEmpty());
  os << "new";
  EXPECT_EQ(os.Str(), "new");
}

}  // namespace
