#ifndef QUELM_TESTS_FOUNDATION_STRING_STRING_TEST_UTIL_H_
#define QUELM_TESTS_FOUNDATION_STRING_STRING_TEST_UTIL_H_

#include <cstdio>
#include <initializer_list>
#include <ostream>

#include "foundation/string/OmTimeVal.h"
#include "foundation/string/OmUniString.h"

// Readable failure output: printable ASCII as is, every other unit as \uXXXX.
inline void PrintTo(const OmUniString& s, std::ostream* os) {
  *os << '"';
  for (unsigned long i = 0; i < s.Length(); ++i) {
    OmUniString::Unit u = s[i];
    if (u >= 0x20 && u < 0x7f) {
      *os << static_cast<char>(u);
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned>(u));
      *os << hex;
    }
  }
  *os << '"';
}

inline void PrintTo(const OmTimeVal& t, std::ostream* os) {
  *os << t.seconds << "s+" << t.microseconds << "us";
}

// A string from explicit code units.
inline OmUniString Units(std::initializer_list<OmUniString::Unit> units) {
  return OmUniString(units.begin(), static_cast<unsigned long>(units.size()));
}

#endif  // QUELM_TESTS_FOUNDATION_STRING_STRING_TEST_UTIL_H_
