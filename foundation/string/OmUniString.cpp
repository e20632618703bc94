#include "foundation/string/OmUniString.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

using Unit = OmUniString::Unit;

// Starts of the ten-digit blocks of every script whose digits count.
const Unit kDigitBlocks[] = {0x0030, 0x0660, 0x06F0, 0x0966, 0x09E6, 0x0A66, 0x0AE6, 0x0B66,
                             0x0C66, 0x0CE6, 0x0D66, 0x0E50, 0x0ED0, 0x0F20, 0x2080, 0xFF10};
// Single digit units and their values.
const Unit kDigitUnits[] = {0x00B2, 0x00B3, 0x00B9, 0x0BE7, 0x0BE8, 0x0BE9, 0x0BEA,
                            0x0BEB, 0x0BEC, 0x0BED, 0x0BEE, 0x0BEF, 0x2070, 0x2074,
                            0x2075, 0x2076, 0x2077, 0x2078, 0x2079};
const int kDigitUnitValues[] = {2, 3, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 4, 5, 6, 7, 8, 9};

bool IsDigit(Unit u, unsigned& value) {
  const int v = OmUniString::DigitValue(u);
  if (v < 0) return false;
  value = static_cast<unsigned>(v);
  return true;
}

// Scans decimal digits from index i; the value wraps in T.
template <typename T>
T ScanDigits(const OmUniString& s, unsigned long i) {
  T value = 0;
  unsigned digit = 0;
  for (; i < s.Length() && IsDigit(s[i], digit); ++i) value = static_cast<T>(value * 10 + digit);
  return value;
}

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

OmUniString::OmUniString(const char* text) : OmUniString(text, text ? std::strlen(text) : 0) {}

OmUniString::OmUniString(const char* bytes, unsigned long count) {
  if (count == 0) return;
  buffer_.SetLength(count * 2);
  Unit* units = reinterpret_cast<Unit*>(buffer_.MutableData());
  for (unsigned long i = 0; i < count; ++i) units[i] = static_cast<unsigned char>(bytes[i]);
}

OmUniString::OmUniString(const Unit* units, unsigned long count) {
  if (count > 0) buffer_.Append(units, count * 2);
}

void OmUniString::SetAt(unsigned long i, Unit u) {
  if (i < Length()) reinterpret_cast<Unit*>(buffer_.MutableData())[i] = u;
}

bool OmUniString::operator==(const OmUniString& other) const { return buffer_ == other.buffer_; }

bool OmUniString::operator<(const OmUniString& other) const {
  return std::lexicographical_compare(Units(), Units() + Length(), other.Units(),
                                      other.Units() + other.Length());
}

OmUniString OmUniString::operator+(const OmUniString& other) const {
  OmUniString result(*this);
  result += other;
  return result;
}

OmUniString& OmUniString::operator+=(const OmUniString& other) {
  buffer_.Append(other.buffer_.Data(), other.buffer_.Length());
  return *this;
}

OmUniString& OmUniString::Append(Unit u) {
  buffer_.Append(&u, 2);
  return *this;
}

OmUniString& OmUniString::Append(const Unit* units, unsigned long count) {
  buffer_.Append(units, count * 2);
  return *this;
}

OmUniString OmUniString::SubString(unsigned long start, unsigned long count) const {
  const unsigned long length = Length();
  if (start >= length) return OmUniString();
  count = std::min(count, length - start);
  return OmUniString(Units() + start, count);
}

long OmUniString::SearchFrom(unsigned long start, Unit u) const {
  for (unsigned long i = start; i < Length(); ++i) {
    if (Units()[i] == u) return static_cast<long>(i);
  }
  return -1;
}

long OmUniString::SearchFrom(unsigned long start, const OmUniString& s) const {
  const unsigned long length = Length(), n = s.Length();
  if (start > length || n > length - start) return -1;
  for (unsigned long i = start; i + n <= length; ++i) {
    if (n == 0 || std::memcmp(Units() + i, s.Units(), n * 2) == 0) return static_cast<long>(i);
  }
  return -1;
}

long OmUniString::SearchReverse(Unit u) const {
  return IsEmpty() ? -1 : SearchReverseFrom(Length() - 1, u);
}

long OmUniString::SearchReverseFrom(unsigned long start, Unit u) const {
  if (IsEmpty()) return -1;
  for (long i = static_cast<long>(std::min(start, Length() - 1)); i >= 0; --i) {
    if (Units()[i] == u) return i;
  }
  return -1;
}

long OmUniString::SearchReverseFrom(unsigned long start, const OmUniString& s) const {
  const unsigned long length = Length(), n = s.Length();
  if (n > length) return -1;
  for (long i = static_cast<long>(std::min(start, length - n)); i >= 0; --i) {
    if (n == 0 || std::memcmp(Units() + i, s.Units(), n * 2) == 0) return i;
  }
  return -1;
}

long OmUniString::SearchFirstNotIn(const OmUniString& set) const {
  for (unsigned long i = 0; i < Length(); ++i) {
    if (set.Search(Units()[i]) < 0) return static_cast<long>(i);
  }
  return -1;
}

unsigned long OmUniString::Substitute(const OmUniString& from, const OmUniString& to) {
  if (from.IsEmpty()) return 0;
  unsigned long count = 0, pos = 0;
  OmUniString result;
  for (long found = SearchFrom(0, from); found >= 0; found = SearchFrom(pos, from)) {
    result.Append(Units() + pos, static_cast<unsigned long>(found) - pos);
    result += to;
    pos = static_cast<unsigned long>(found) + from.Length();
    ++count;
  }
  if (count == 0) return 0;
  result.Append(Units() + pos, Length() - pos);
  *this = result;
  return count;
}

OmUniString& OmUniString::Insert(unsigned long at, const OmUniString& s) {
  buffer_.Insert(std::min(at, Length()) * 2, s.buffer_.Length(), s.buffer_.Data());
  return *this;
}

OmUniString& OmUniString::Remove(unsigned long at, unsigned long count) {
  if (at < Length()) buffer_.Remove(at * 2, std::min(count, Length() - at) * 2);
  return *this;
}

OmUniString& OmUniString::Truncate(unsigned long n) {
  buffer_.SetLength(n * 2);
  return *this;
}

OmUniString& OmUniString::Pad(unsigned long n, Unit u) {
  const unsigned long length = Length();
  if (n < length) return Truncate(n);
  buffer_.SetLength(n * 2);
  Unit* units = reinterpret_cast<Unit*>(buffer_.MutableData());
  for (unsigned long i = length; i < n; ++i) units[i] = u;
  return *this;
}

bool OmUniString::MatchCaseless(const OmUniString& other) const {
  if (Length() != other.Length()) return false;
  for (unsigned long i = 0; i < Length(); ++i) {
    if (Lower(Units()[i]) != Lower(other.Units()[i])) return false;
  }
  return true;
}

OmUniString::Unit OmUniString::Lower(Unit u) {
  if ((u >= 'A' && u <= 'Z') || (u >= 0xC0 && u <= 0xDE && u != 0xD7)) return u + 32;
  return u;
}

OmUniString::Unit OmUniString::Upper(Unit u) {
  if ((u >= 'a' && u <= 'z') || (u >= 0xE0 && u <= 0xFE && u != 0xF7)) return u - 32;
  return u;
}

OmUniString OmUniString::Lowered() const {
  OmUniString result(*this);
  for (unsigned long i = 0; i < Length(); ++i) result.SetAt(i, Lower(Units()[i]));
  return result;
}

OmUniString OmUniString::Uppered() const {
  OmUniString result(*this);
  for (unsigned long i = 0; i < Length(); ++i) result.SetAt(i, Upper(Units()[i]));
  return result;
}

int OmUniString::DigitValue(Unit u) {
  // The last block start not above u; a digit if u lies within its ten units.
  const Unit* block = std::upper_bound(std::begin(kDigitBlocks), std::end(kDigitBlocks), u);
  if (block != std::begin(kDigitBlocks) && u - *(block - 1) < 10) return u - *(block - 1);
  const Unit* single = std::lower_bound(std::begin(kDigitUnits), std::end(kDigitUnits), u);
  if (single != std::end(kDigitUnits) && *single == u) {
    return kDigitUnitValues[single - std::begin(kDigitUnits)];
  }
  return -1;
}

int32_t OmUniString::AsInt32() const { return static_cast<int32_t>(AsUint32()); }

uint32_t OmUniString::AsUint32() const {
  if (IsEmpty()) return 0;
  const bool negative = Units()[0] == '-';
  const uint32_t value = ScanDigits<uint32_t>(*this, negative ? 1 : 0);
  return negative ? 0u - value : value;
}

uint16_t OmUniString::AsUint16() const {
  if (IsEmpty() || Units()[0] == '-') return 0;
  return static_cast<uint16_t>(ScanDigits<uint32_t>(*this, 0));
}

uint64_t OmUniString::AsUint64() const {
  if (IsEmpty() || Units()[0] == '-') return 0;
  return ScanDigits<uint64_t>(*this, 0);
}

OmUniString OmUniString::CreateFromUnsigned(unsigned v) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%u", v);
  return OmUniString(digits);
}

OmByteBuffer OmUniString::AsEncoding(OmEncoding encoding, unsigned) const {
  if (encoding == OmEncoding::UTF8) {
    const std::string bytes = AsUtf8();
    return OmByteBuffer(bytes.data(), bytes.size());
  }
  const Unit limit = encoding == OmEncoding::LATIN1 ? 0xFF : 0x7F;
  OmByteBuffer out;
  out.SetLength(Length());
  unsigned char* bytes = out.MutableData();
  for (unsigned long i = 0; i < Length(); ++i) {
    const Unit u = Units()[i];
    bytes[i] = u <= limit ? static_cast<unsigned char>(u) : '?';
  }
  return out;
}

OmUniString OmUniString::CreateFrom(const void* data, unsigned long count, OmEncoding encoding,
                                    unsigned) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  OmUniString out;
  if (count == 0) return out;
  if (encoding != OmEncoding::UTF8) {
    out.buffer_.SetLength(count * 2);
    Unit* units = reinterpret_cast<Unit*>(out.buffer_.MutableData());
    for (unsigned long i = 0; i < count; ++i) {
      units[i] = (encoding == OmEncoding::LATIN1 || bytes[i] < 0x80) ? bytes[i] : 0xFFFD;
    }
    return out;
  }
  out.buffer_.Reserve(count * 2);
  for (unsigned long i = 0; i < count;) {
    const unsigned char b = bytes[i];
    unsigned extra = 0;
    uint32_t cp = 0, min = 0;
    if (b < 0x80) {
      cp = b;
    } else if ((b & 0xE0) == 0xC0) {
      extra = 1, cp = b & 0x1F, min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      extra = 2, cp = b & 0x0F, min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      extra = 3, cp = b & 0x07, min = 0x10000;
    } else {
      out.Append(0xFFFD);
      ++i;
      continue;
    }
    unsigned k = 1;
    for (; k <= extra && i + k < count && (bytes[i + k] & 0xC0) == 0x80; ++k) {
      cp = (cp << 6) | (bytes[i + k] & 0x3F);
    }
    if (k <= extra || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      out.Append(0xFFFD);
      i += k;
      continue;
    }
    i += k;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.Append(static_cast<Unit>(0xD800 + (cp >> 10)));
      out.Append(static_cast<Unit>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.Append(static_cast<Unit>(cp));
    }
  }
  return out;
}

std::string OmUniString::AsUtf8() const {
  std::string out;
  out.reserve(Length());
  const unsigned long length = Length();
  for (unsigned long i = 0; i < length; ++i) {
    uint32_t cp = Units()[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < length && Units()[i + 1] >= 0xDC00 &&
        Units()[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (Units()[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    AppendUtf8(out, cp);
  }
  return out;
}

std::string OmUniString::AsAscii() const {
  const OmByteBuffer bytes = AsEncoding(OmEncoding::USASCII);
  return std::string(reinterpret_cast<const char*>(bytes.Data()), bytes.Length());
}

void Split(const OmUniString& s, std::vector<OmUniString>& list, OmUniString::Unit separator) {
  unsigned long start = 0;
  for (long found = s.SearchFrom(0, separator); found >= 0;
       found = s.SearchFrom(start, separator)) {
    list.push_back(s.SubString(start, static_cast<unsigned long>(found) - start));
    start = static_cast<unsigned long>(found) + 1;
  }
  list.push_back(s.SubString(start));
}

OmUniString Join(const std::vector<OmUniString>& list, const OmUniString& separator) {
  OmUniString out;
  for (size_t i = 0; i < list.size(); ++i) {
    if (i > 0) out += separator;
    out += list[i];
  }
  return out;
}

OmUniString Join(const std::vector<OmUniString>& list, OmUniString::Unit separator) {
  return Join(list, OmUniString(&separator, 1));
}

namespace {

OmUniString DoHex(unsigned long long v, int width) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llx", width * 2, v);
  return OmUniString(text);
}

}  // namespace

OmUniString Hex(unsigned char v) { return DoHex(v, 1); }
OmUniString Hex(unsigned short v) { return DoHex(v, 2); }
OmUniString Hex(unsigned v) { return DoHex(v, 4); }
OmUniString Hex(unsigned long long v) { return DoHex(v, 8); }

bool OmWildcardMatch(const OmUniString& pattern, const OmUniString& text, bool caseless,
                     OmUniString::Unit many, OmUniString::Unit one, OmUniString::Unit escape) {
  const unsigned long plen = pattern.Length(), tlen = text.Length();
  auto fold = [caseless](Unit u) { return caseless ? OmUniString::Lower(u) : u; };
  unsigned long p = 0, t = 0;
  long starP = -1, starT = -1;  // where to resume after the last "many"
  while (t < tlen) {
    if (p < plen && pattern[p] == many) {
      starP = static_cast<long>(++p);
      starT = static_cast<long>(t);
      continue;
    }
    if (p < plen) {
      Unit pu = pattern[p];
      unsigned long step = 1;
      bool literal = false;
      if (escape != 0 && pu == escape && p + 1 < plen) {
        pu = pattern[p + 1];
        step = 2;
        literal = true;
      }
      if ((!literal && pu == one) || fold(pu) == fold(text[t])) {
        p += step;
        ++t;
        continue;
      }
    }
    if (starP < 0) return false;
    p = static_cast<unsigned long>(starP);
    t = static_cast<unsigned long>(++starT);
  }
  while (p < plen && pattern[p] == many) ++p;
  return p == plen;
}
