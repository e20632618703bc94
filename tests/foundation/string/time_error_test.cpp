#include <cerrno>

#include <gtest/gtest.h>

#include "foundation/string/OmError.h"
#include "foundation/string/OmTimeVal.h"
#include "string_test_util.h"

namespace {

TEST(TimeValTest, MicrosecondsCarryAndCompare) {
  EXPECT_EQ(OmTimeVal(5, 2500000), OmTimeVal(7, 500000));
  EXPECT_EQ(OmTimeVal(1, 600000).PlusMilliseconds(2500), OmTimeVal(4, 100000));
  EXPECT_LT(OmTimeVal(5, 999999), OmTimeVal(6, 0));
  // Seconds are unsigned: late times stay late.
  EXPECT_LT(OmTimeVal(0x7fffffff, 0), OmTimeVal(0x80000000u, 0));
}

TEST(ErrorTest, Reasons) {
  EXPECT_EQ(OmUnixError(ENOENT, "open", "x").Reason(), "open(x): No such file or directory");
  EXPECT_EQ(OmUnixError(EACCES, "socket").Reason(), "socket(): Permission denied");
  EXPECT_EQ(OmUnixError(EACCES, OmUniString()).Reason(), "Permission denied");
}

}  // namespace
