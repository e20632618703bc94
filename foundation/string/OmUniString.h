#ifndef QUELM_FOUNDATION_STRING_OMUNISTRING_H_
#define QUELM_FOUNDATION_STRING_OMUNISTRING_H_

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/string/OmByteBuffer.h"

class OmCodeset;       // foundation/string/OmCodeset.h
class OmCodesetError;

// Byte encodings the probe converts to and from.
enum class OmEncoding {
  USASCII,  // bytes 0-127; other bytes decode to U+FFFD, other units encode as '?'
  UTF8,
  LATIN1,   // byte-transparent: byte b <-> unit b; units above 255 encode as '?'
};

// A string of 16-bit code units kept in a copy-on-write OmByteBuffer.
class OmUniString {
 public:
  using Unit = uint16_t;
  static constexpr unsigned long npos = ~0UL;

  OmUniString() = default;
  OmUniString(const char* text);  // NOLINT: each byte becomes one unit (Latin-1)
  OmUniString(const char* bytes, unsigned long count);
  OmUniString(const Unit* units, unsigned long count);
  explicit OmUniString(const std::string& bytes) : OmUniString(bytes.data(), bytes.size()) {}

  unsigned long Length() const { return buffer_.Length() / 2; }
  bool IsEmpty() const { return buffer_.Length() == 0; }
  const Unit* Units() const { return reinterpret_cast<const Unit*>(buffer_.Data()); }
  Unit operator[](unsigned long i) const { return Units()[i]; }
  Unit At(unsigned long i) const { return i < Length() ? Units()[i] : 0; }
  void SetAt(unsigned long i, Unit u);
  const OmByteBuffer& Buffer() const { return buffer_; }

  bool operator==(const OmUniString& other) const;
  bool operator!=(const OmUniString& other) const { return !(*this == other); }
  bool operator==(const char* text) const { return *this == OmUniString(text); }
  bool operator!=(const char* text) const { return !(*this == text); }
  bool operator<(const OmUniString& other) const;
  OmUniString operator+(const OmUniString& other) const;
  OmUniString& operator+=(const OmUniString& other);
  OmUniString& Append(Unit u);
  OmUniString& Append(const Unit* units, unsigned long count);

  // Units [start, start + count), clipped to the string.
  OmUniString SubString(unsigned long start, unsigned long count = npos) const;

  // Searches return the index found, or -1.
  long Search(Unit u) const { return SearchFrom(0, u); }
  long Search(const OmUniString& s) const { return SearchFrom(0, s); }
  long SearchFrom(unsigned long start, Unit u) const;
  long SearchFrom(unsigned long start, const OmUniString& s) const;
  long SearchReverse(Unit u) const;
  long SearchReverseFrom(unsigned long start, Unit u) const;
  long SearchReverseFrom(unsigned long start, const OmUniString& s) const;
  long SearchFirstNotIn(const OmUniString& set) const;

  // Replaces every occurrence of from (scanning left to right, not re-examining
  // inserted text); returns the number of replacements.
  unsigned long Substitute(const OmUniString& from, const OmUniString& to);
  OmUniString& Insert(unsigned long at, const OmUniString& s);
  OmUniString& Remove(unsigned long at, unsigned long count);
  OmUniString& Truncate(unsigned long n);
  OmUniString& Pad(unsigned long n, Unit u);

  bool MatchCaseless(const OmUniString& other) const;
  static Unit Lower(Unit u);
  static Unit Upper(Unit u);
  OmUniString Lowered() const;
  OmUniString Uppered() const;

  // Decimal conversions; they never fail (see the .cpp for the exact rules).
  int32_t AsInt32() const;
  uint32_t AsUint32() const;
  uint16_t AsUint16() const;
  uint64_t AsUint64() const;
  static OmUniString CreateFromUnsigned(unsigned v);
  // Value of u as a decimal digit of any supported script, or -1.
  static int DigitValue(Unit u);

  OmByteBuffer AsEncoding(OmEncoding encoding, unsigned flags = 0) const;
  static OmUniString CreateFrom(const void* bytes, unsigned long count, OmEncoding encoding,
                                unsigned flags = 0);
  static OmUniString CreateFrom(const OmByteBuffer& bytes, OmEncoding encoding) {
    return CreateFrom(bytes.Data(), bytes.Length(), encoding);
  }
  // Strict conversions through any set of OmCodeset (defined in OmCodeset.cpp):
  // false, with the place and the reason in err, where the lenient ones replace.
  bool AsCodeset(const OmCodeset& set, OmByteBuffer& out, OmCodesetError& err) const;
  static bool CreateFrom(const void* bytes, unsigned long count, const OmCodeset& set,
                         OmUniString& out, OmCodesetError& err);
  std::string AsUtf8() const;   // also the file-system ("shell") encoding
  std::string AsAscii() const;
  static OmUniString FromUtf8(const std::string& s) {
    return CreateFrom(s.data(), s.size(), OmEncoding::UTF8);
  }

 private:
  OmByteBuffer buffer_;
};

// Splitting keeps empty fields: "a,,b," gives "a", "", "b", "".
void Split(const OmUniString& s, std::vector<OmUniString>& list, OmUniString::Unit separator);
OmUniString Join(const std::vector<OmUniString>& list, const OmUniString& separator);
OmUniString Join(const std::vector<OmUniString>& list, OmUniString::Unit separator);

OmUniString Hex(unsigned char v);
OmUniString Hex(unsigned short v);
OmUniString Hex(unsigned v);
OmUniString Hex(unsigned long long v);

// Matches text against pattern where `many` stands for any run of units and
// `one` for any single unit; `escape` (0 for none) makes the next unit literal.
bool OmWildcardMatch(const OmUniString& pattern, const OmUniString& text, bool caseless = false,
                     OmUniString::Unit many = '*', OmUniString::Unit one = '?',
                     OmUniString::Unit escape = 0);

#endif  // QUELM_FOUNDATION_STRING_OMUNISTRING_H_
