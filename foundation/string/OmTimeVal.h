#ifndef QUELM_FOUNDATION_STRING_OMTIMEVAL_H_
#define QUELM_FOUNDATION_STRING_OMTIMEVAL_H_

#include <cstdint>
#include <ctime>

#include "foundation/string/OmUniString.h"

// An absolute time in seconds and microseconds (kept below 1000000).
class OmTimeVal {
 public:
  OmTimeVal() = default;
  OmTimeVal(uint32_t sec, uint32_t usec) : seconds(sec), microseconds(usec) { Normalise(); }

  // The current time of the environment in use (OmEnv).
  static OmTimeVal now();

  uint32_t Time() const { return seconds; }
  void Normalise();
  OmTimeVal PlusSeconds(uint32_t s) const { return OmTimeVal(seconds + s, microseconds); }
  OmTimeVal PlusMilliseconds(uint64_t ms) const;
  // Broken-down UTC time; false when out of range.
  bool FillInTMStruct(struct tm& out) const;
  // "Thu, 01 Jan 1970 00:00:00 GMT"; empty when out of range.
  OmUniString AsRFC1123() const;

  int Compare(const OmTimeVal& o) const;
  bool operator==(const OmTimeVal& o) const { return Compare(o) == 0; }
  bool operator!=(const OmTimeVal& o) const { return Compare(o) != 0; }
  bool operator<(const OmTimeVal& o) const { return Compare(o) < 0; }
  bool operator<=(const OmTimeVal& o) const { return Compare(o) <= 0; }
  bool operator>(const OmTimeVal& o) const { return Compare(o) > 0; }
  bool operator>=(const OmTimeVal& o) const { return Compare(o) >= 0; }

  uint32_t seconds = 0;
  uint32_t microseconds = 0;
};

#endif  // QUELM_FOUNDATION_STRING_OMTIMEVAL_H_
