#include "foundation/string/OmOSStream.h"

#include <cstdio>

OmOSStream& OmOSStream::Signed(long long v) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%lld", v);
  str_ += OmUniString(digits);
  return *this;
}

OmOSStream& OmOSStream::Unsigned(unsigned long long v) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%llu", v);
  str_ += OmUniString(digits);
  return *this;
}
