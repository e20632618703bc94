// Any bytes through the string type: decoding, integer conversions, search,
// substitution, split and join, wildcards and encoding round trips. Each
// result is compared with a plain model of the same rule.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/string/OmUniString.h"

namespace {

using Unit = OmUniString::Unit;
using Units = std::u16string;

void check(bool ok) {
  if (!ok) std::abort();
}

Units units(const OmUniString& s) { return Units(s.Units(), s.Units() + s.Length()); }
OmUniString fromUnits(const Units& u) {
  return OmUniString(reinterpret_cast<const Unit*>(u.data()), u.size());
}

// The decimal digits of every script the conversions accept.
int modelDigit(Unit u) {
  static const Unit kBlocks[] = {0x0030, 0x0660, 0x06F0, 0x0966, 0x09E6, 0x0A66, 0x0AE6, 0x0B66,
                                 0x0C66, 0x0CE6, 0x0D66, 0x0E50, 0x0ED0, 0x0F20, 0x2080, 0xFF10};
  for (Unit start : kBlocks) {
    if (u >= start && u < start + 10) return u - start;
  }
  switch (u) {
    case 0x00B2: return 2;
    case 0x00B3: return 3;
    case 0x00B9: return 1;
    case 0x2070: return 0;
    default: break;
  }
  if (u >= 0x0BE7 && u <= 0x0BEF) return u - 0x0BE6;
  if (u >= 0x2074 && u <= 0x2079) return u - 0x2070;
  return -1;
}

template <typename T>
T modelScan(const Units& s, size_t i) {
  T value = 0;
  for (; i < s.size() && modelDigit(s[i]) >= 0; ++i) {
    value = static_cast<T>(value * 10u + static_cast<unsigned>(modelDigit(s[i])));
  }
  return value;
}

void checkConversions(const OmUniString& s) {
  const Units u = units(s);
  const bool negative = !u.empty() && u[0] == '-';
  uint32_t v32 = u.empty() ? 0 : modelScan<uint32_t>(u, negative ? 1 : 0);
  if (negative) v32 = 0u - v32;
  check(s.AsUint32() == v32);
  check(s.AsInt32() == static_cast<int32_t>(v32));
  check(s.AsUint16() == (negative ? 0 : static_cast<uint16_t>(modelScan<uint32_t>(u, 0))));
  check(s.AsUint64() == (negative ? 0 : modelScan<uint64_t>(u, 0)));
  check(OmUniString::CreateFromUnsigned(s.AsUint32()).AsUint32() == s.AsUint32());
  for (Unit c : u) check(OmUniString::DigitValue(c) == modelDigit(c));
}

// The UTF-8 text of a unit sequence as the type defines it: pairs become one
// code point, lone surrogates become U+FFFD.
Units decodedAgain(const Units& u) {
  Units out;
  for (size_t i = 0; i < u.size(); ++i) {
    const Unit c = u[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < u.size() && u[i + 1] >= 0xDC00 &&
        u[i + 1] <= 0xDFFF) {
      out.push_back(c);
      out.push_back(u[++i]);
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      out.push_back(0xFFFD);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

void checkEncodings(const uint8_t* data, size_t size, const OmUniString& latin1,
                    const OmUniString& utf8, const OmUniString& utf16) {
  // Latin-1 is byte-transparent both ways.
  check(latin1.Length() == size);
  for (size_t i = 0; i < size; ++i) check(latin1[i] == data[i]);
  const OmByteBuffer bytes = latin1.AsEncoding(OmEncoding::LATIN1);
  check(bytes.Length() == size && (size == 0 || std::memcmp(bytes.Data(), data, size) == 0));
  check(OmUniString(reinterpret_cast<const char*>(data), size) == latin1);

  // US-ASCII keeps the low half and marks the rest.
  const OmUniString ascii = OmUniString::CreateFrom(data, size, OmEncoding::USASCII);
  check(ascii.Length() == size);
  for (size_t i = 0; i < size; ++i) check(ascii[i] == (data[i] < 0x80 ? data[i] : 0xFFFD));
  const std::string asciiBytes = latin1.AsAscii();
  check(asciiBytes.size() == size);
  for (size_t i = 0; i < size; ++i) check(asciiBytes[i] == (data[i] < 0x80 ? char(data[i]) : '?'));

  // UTF-8: decoding the encoding of a decoded text gives the same units, and
  // input that decoded without a replacement unit encodes back to itself.
  const std::string again = utf8.AsUtf8();
  check(OmUniString::FromUtf8(again) == utf8);
  if (utf8.Search(Unit(0xFFFD)) < 0) {
    check(again.size() == size && (size == 0 || std::memcmp(again.data(), data, size) == 0));
  }
  check(utf8.Length() <= size);
  for (const OmUniString* s : {&latin1, &utf16}) {
    check(units(OmUniString::FromUtf8(s->AsUtf8())) == decodedAgain(units(*s)));
    const OmByteBuffer viaBuffer = s->AsEncoding(OmEncoding::UTF8);
    check(OmUniString::CreateFrom(viaBuffer, OmEncoding::UTF8) == OmUniString::FromUtf8(s->AsUtf8()));
  }
}

void checkSearches(const OmUniString& s, const OmUniString& needle, unsigned long start) {
  const Units hay = units(s), n = units(needle);
  const size_t found = hay.find(n, start);
  const long expected = start > hay.size() ? -1 : found == Units::npos ? -1 : long(found);
  check(s.SearchFrom(start, needle) == expected);
  check(s.Search(needle) == (hay.find(n) == Units::npos ? -1 : long(hay.find(n))));
  if (!n.empty()) {
    const Unit u = n[0];
    const size_t one = hay.find(u, start);
    check(s.SearchFrom(start, u) == (one == Units::npos ? -1 : long(one)));
    const size_t back = hay.rfind(u, start);
    check(s.SearchReverseFrom(start, u) == (back == Units::npos ? -1 : long(back)));
    const size_t last = hay.rfind(u);
    check(s.SearchReverse(u) == (last == Units::npos ? -1 : long(last)));
  }
  const size_t backString = hay.rfind(n, start);
  check(s.SearchReverseFrom(start, needle) ==
        (backString == Units::npos ? -1 : long(backString)));
  const size_t notIn = hay.find_first_not_of(n);
  check(s.SearchFirstNotIn(needle) == (notIn == Units::npos ? -1 : long(notIn)));
}

void checkSubstitute(const OmUniString& s, const OmUniString& from, const OmUniString& to) {
  OmUniString changed = s;
  const OmUniString before = s;
  const unsigned long count = changed.Substitute(from, to);
  check(s == before);  // the copy shared the buffer; the original stays
  Units expected = units(s);
  unsigned long expectedCount = 0;
  const Units f = units(from), t = units(to);
  if (!f.empty()) {
    Units out;
    size_t pos = 0;
    for (size_t at = expected.find(f); at != Units::npos; at = expected.find(f, pos)) {
      out += expected.substr(pos, at - pos);
      out += t;
      pos = at + f.size();
      ++expectedCount;
    }
    out += expected.substr(pos);
    expected = out;
  }
  check(count == expectedCount);
  check(units(changed) == expected);
}

void checkSplitJoin(const OmUniString& s, Unit separator) {
  std::vector<OmUniString> parts;
  Split(s, parts, separator);
  size_t separators = 0;
  for (unsigned long i = 0; i < s.Length(); ++i) separators += s[i] == separator;
  check(parts.size() == separators + 1);
  for (const OmUniString& part : parts) check(part.Search(separator) < 0);
  check(Join(parts, separator) == s);
  check(Join(parts, OmUniString(&separator, 1)) == s);
}

// Wildcard model: '*' any run, '?' any one unit, no escape.
bool modelMatch(const Units& p, const Units& t, bool caseless) {
  auto fold = [caseless](Unit u) { return caseless ? OmUniString::Lower(u) : u; };
  // row[j]: pattern prefix so far matches text prefix of length j.
  std::vector<char> row(t.size() + 1, 0), next(t.size() + 1, 0);
  row[0] = 1;
  for (Unit pu : p) {
    next.assign(t.size() + 1, 0);
    if (pu == '*') {
      char any = 0;
      for (size_t j = 0; j <= t.size(); ++j) next[j] = any = any || row[j];
    } else {
      for (size_t j = 1; j <= t.size(); ++j) {
        next[j] = row[j - 1] && (pu == '?' || fold(pu) == fold(t[j - 1]));
      }
    }
    row.swap(next);
  }
  return row[t.size()] != 0;
}

void checkWildcards(const OmUniString& pattern, const OmUniString& text) {
  const Units p = units(pattern), t = units(text);
  for (bool caseless : {false, true}) {
    check(OmWildcardMatch(pattern, text, caseless) == modelMatch(p, t, caseless));
  }
  check(OmWildcardMatch(OmUniString("*"), text));
  check(OmWildcardMatch(text, text) || text.Search('*') >= 0 || text.Search('?') >= 0);
  // Other wildcard units and an escape: only that it ends.
  OmWildcardMatch(pattern, text, false, '%', '_', '\\');
  OmWildcardMatch(pattern, text, true, '*', '?', '*');
}

void checkEditing(const OmUniString& s, unsigned long at, const OmUniString& piece) {
  OmUniString edited = s;
  edited.Insert(at, piece);
  const unsigned long where = at < s.Length() ? at : s.Length();
  check(edited.Length() == s.Length() + piece.Length());
  check(edited.SubString(where, piece.Length()) == piece);
  edited.Remove(where, piece.Length());
  check(edited == s);

  OmUniString padded = s;
  padded.Pad(s.Length() + 3, 'x');
  check(padded.Length() == s.Length() + 3 && padded.SubString(0, s.Length()) == s);
  padded.Truncate(at < s.Length() ? at : s.Length());
  check(padded == s.SubString(0, at));

  check(s.MatchCaseless(s.Uppered()) && s.MatchCaseless(s.Lowered()));
  check(s.Lowered().Lowered() == s.Lowered());
  check((s < piece) == (units(s) < units(piece)));
  check((s == piece) == (units(s) == units(piece)));
  check((s + piece) == fromUnits(units(s) + units(piece)));
  check(s.Buffer().HashValue() == fromUnits(units(s)).Buffer().HashValue());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const OmUniString latin1 = OmUniString::CreateFrom(data, size, OmEncoding::LATIN1);
  const OmUniString utf8 = OmUniString::CreateFrom(data, size, OmEncoding::UTF8);
  std::vector<Unit> pairs(size / 2);
  if (!pairs.empty()) std::memcpy(pairs.data(), data, pairs.size() * 2);
  const OmUniString utf16(pairs.data(), pairs.size());

  checkEncodings(data, size, latin1, utf8, utf16);
  for (const OmUniString* s : {&latin1, &utf8, &utf16}) checkConversions(*s);

  // The first bytes choose the pieces: a position, a length and a separator.
  const unsigned long n = latin1.Length();
  const unsigned long a = size > 0 ? data[0] % (n + 1) : 0;
  const unsigned long b = size > 1 ? data[1] % 8 : 0;
  const Unit separator = size > 2 ? data[2] : ',';
  for (const OmUniString* s : {&latin1, &utf8, &utf16}) {
    const unsigned long len = s->Length();
    const unsigned long start = len > 0 ? a % (len + 2) : a % 2;
    const OmUniString needle = s->SubString(start, b);
    checkSearches(*s, needle, start);
    checkSearches(*s, OmUniString("ab"), start);
    checkSubstitute(*s, needle, s->SubString(0, b / 2));
    checkSubstitute(*s, OmUniString("%20"), OmUniString(" "));
    checkSplitJoin(*s, separator);
    checkWildcards(s->SubString(0, len / 2), s->SubString(len / 2));
    checkEditing(*s, start, needle);
  }
  return 0;
}
