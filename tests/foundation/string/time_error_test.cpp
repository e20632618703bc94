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

TEST(TimeValTest, MicrosecondsCarryIntoSeconds) {
  EXPECT_EQ(OmTimeVal(5, 2500000), OmTimeVal(7, 500000));
  EXPECT_EQ(OmTimeVal(5, 1000000).seconds, 6u);
  EXPECT_EQ(OmTimeVal(5, 999999).seconds, 5u);
  OmTimeVal t;
  t.seconds = 10;
  t.microseconds = 3000001;
  t.Normalise();
  EXPECT_EQ(t.seconds, 13u);
  EXPECT_EQ(t.microseconds, 1u);
  EXPECT_EQ(OmTimeVal(1, 600000).PlusMilliseconds(2500), OmTimeVal(4, 100000));
  EXPECT_EQ(OmTimeVal(1, 999000).PlusMilliseconds(1), OmTimeVal(2, 0));
  EXPECT_EQ(OmTimeVal(100, 42).PlusSeconds(5), OmTimeVal(105, 42));
}

TEST(TimeValTest, Comparison) {
  EXPECT_LT(OmTimeVal(5, 1), OmTimeVal(5, 2));
  EXPECT_LT(OmTimeVal(5, 999999), OmTimeVal(6, 0));
  EXPECT_GE(OmTimeVal(5, 1), OmTimeVal(5, 1));
  EXPECT_NE(OmTimeVal(5, 1), OmTimeVal(5, 2));
  EXPECT_GT(OmTimeVal(6, 0).Compare(OmTimeVal(5, 999999)), 0);
  EXPECT_EQ(OmTimeVal(5, 1).Compare(OmTimeVal(4, 1000001)), 0);
  // Seconds are unsigned: late times stay late.
  EXPECT_LT(OmTimeVal(0x7fffffff, 0), OmTimeVal(0x80000000u, 0));
}

TEST(TimeValTest, Rfc1123AndTmAreUtc) {
  EXPECT_EQ(OmTimeVal(0, 0).AsRFC1123(), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(OmTimeVal(951782400, 999999).AsRFC1123(), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(OmTimeVal(4294967295u, 0).AsRFC1123(), "Sun, 07 Feb 2106 06:28:15 GMT");
  struct tm tm;
  std::memset(&tm, 0, sizeof tm);
  ASSERT_TRUE(OmTimeVal(1700000000, 0).FillInTMStruct(tm));  // Tue, 14 Nov 2023 22:13:20
  EXPECT_EQ(tm.tm_year, 123);
  EXPECT_EQ(tm.tm_mon, 10);
  EXPECT_EQ(tm.tm_mday, 14);
  EXPECT_EQ(tm.tm_hour, 22);
  EXPECT_EQ(tm.tm_min, 13);
  EXPECT_EQ(tm.tm_sec, 20);
  EXPECT_EQ(tm.tm_wday, 2);
}

OmTimeVal FakeNow() { return OmTimeVal(1234, 5678); }

TEST(TimeValTest, TestClock) {
  OmTimeVal::SetClock(&FakeNow);
  EXPECT_EQ(OmTimeVal::now(), OmTimeVal(1234, 5678));
  const long real = static_cast<long>(time(nullptr));
  EXPECT_NEAR(static_cast<long>(OmTimeVal::SystemNow().Time()), real, 2);  // ignores it
  OmTimeVal::SetClock(nullptr);
  EXPECT_NEAR(static_cast<long>(OmTimeVal::now().Time()), real, 2);
}

TEST(ErrorTest, Reasons) {
  OmUnixError e(ENOENT, "open", "x");
  EXPECT_EQ(e.Reason(), "open(x): No such file or directory");
  EXPECT_EQ(e.Errno(), ENOENT);
  EXPECT_EQ(e.Call(), "open");
  EXPECT_EQ(e.Args(), "x");
  e.Set(EPIPE, "write", "fd=4");
  const OmError& base = e;
  EXPECT_EQ(base.Reason(), "write(fd=4): Broken pipe");
  EXPECT_EQ(OmUnixError(EACCES, "socket").Reason(), "socket(): Permission denied");
  EXPECT_EQ(OmUnixError(EACCES, OmUniString()).Reason(), "Permission denied");
  EXPECT_EQ(OmError(OmUniString("something broke")).Reason(), "something broke");
  EXPECT_EQ(OmConfigurationError("Port", "abc", "not a number").Reason(),
            "Key Port gave list abc: Failure: not a number");
}

TEST(OSStreamTest, NumbersStringsAndScalars) {
  OmOSStream os;
  os << "x=" << -12 << ", " << OmUniString("y") << "=" << 0 << " " << OmScalar<int>(-3) << "/"
     << OmScalar<unsigned>(7);
  EXPECT_EQ(os.Str(), "x=-12, y=0 -3/7");
  os.Truncate();
  EXPECT_TRUE(os.Str().IsEmpty());
  os << 18446744073709551615ULL << " " << LLONG_MIN << " " << INT_MIN << " " << 4294967295u;
  EXPECT_EQ(os.Str(), "18446744073709551615 -9223372036854775808 -2147483648 4294967295");
}

}  // namespace
