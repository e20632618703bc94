#include "foundation/string/OmTimeVal.h"

#include <cstdio>

#include "foundation/string/OmEnv.h"

namespace {

const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

OmTimeVal OmTimeVal::now() { return OmEnv::Current().Now(); }

void OmTimeVal::Normalise() {
  if (microseconds >= 1000000) {
    seconds += microseconds / 1000000;
    microseconds %= 1000000;
  }
}

OmTimeVal OmTimeVal::PlusMilliseconds(uint64_t ms) const {
  const uint64_t usec = microseconds + (ms % 1000) * 1000;
  return OmTimeVal(static_cast<uint32_t>(seconds + ms / 1000 + usec / 1000000),
                   static_cast<uint32_t>(usec % 1000000));
}

bool OmTimeVal::FillInTMStruct(struct tm& out) const {
  const time_t t = static_cast<time_t>(seconds);
  return gmtime_r(&t, &out) != nullptr;
}

OmUniString OmTimeVal::AsRFC1123() const {
  struct tm tm {};
  if (!FillInTMStruct(tm) || tm.tm_wday < 0 || tm.tm_wday > 6 || tm.tm_mon < 0 || tm.tm_mon > 11) {
    return OmUniString();
  }
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %4d %02d:%02d:%02d GMT", kDays[tm.tm_wday],
                tm.tm_mday, kMonths[tm.tm_mon], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                tm.tm_sec);
  return OmUniString(text);
}

int OmTimeVal::Compare(const OmTimeVal& o) const {
  if (seconds != o.seconds) return seconds > o.seconds ? 1 : -1;
  if (microseconds != o.microseconds) return microseconds > o.microseconds ? 1 : -1;
  return 0;
}
