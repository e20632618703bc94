#ifndef QUELM_FOUNDATION_STRING_OMOSSTREAM_H_
#define QUELM_FOUNDATION_STRING_OMOSSTREAM_H_

#include "foundation/string/OmUniString.h"

// A number wrapper: message arguments are passed as OmScalar<int> or
// OmScalar<unsigned int> and written in decimal.
template <typename T>
struct OmScalar {
  OmScalar(T v) : value(v) {}  // NOLINT: implicit on purpose
  T value;
};

// Builds an OmUniString from strings and decimal numbers.
class OmOSStream {
 public:
  OmOSStream& operator<<(const OmUniString& s) { str_ += s; return *this; }
  OmOSStream& operator<<(const char* s) { str_ += OmUniString(s); return *this; }
  OmOSStream& operator<<(int v) { return Signed(v); }
  OmOSStream& operator<<(long v) { return Signed(v); }
  OmOSStream& operator<<(long long v) { return Signed(v); }
  OmOSStream& operator<<(unsigned v) { return Unsigned(v); }
  OmOSStream& operator<<(unsigned long v) { return Unsigned(v); }
  OmOSStream& operator<<(unsigned long long v) { return Unsigned(v); }
  template <typename T>
  OmOSStream& operator<<(const OmScalar<T>& s) { return *this << s.value; }

  const OmUniString& Str() const { return str_; }
  void Truncate() { str_ = OmUniString(); }

 private:
  OmOSStream& Signed(long long v);
  OmOSStream& Unsigned(unsigned long long v);
  OmUniString str_;
};

#endif  // QUELM_FOUNDATION_STRING_OMOSSTREAM_H_
