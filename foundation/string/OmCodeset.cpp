// The character-set registry and the strict conversions of OmUniString.
#include "foundation/string/OmCodeset.h"

#include <errno.h>
#include <iconv.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

// Canonical names and aliases as the IANA character-set registry spells them,
// plus the few spellings (cp1252, utf8, sjis, ...) that configuration files
// commonly use. The second column is the name glibc's iconv knows.
const OmCodeset OmCodeset::kTable[] = {
    // The first three back OmCodeset::For.
    {"UTF-8", "UTF-8", kUtf8, "utf8 csUTF8 unicode-1-1-utf-8"},
    {"US-ASCII", "ANSI_X3.4-1968", kAscii,
     "ascii us ANSI_X3.4-1968 ANSI_X3.4-1986 iso-ir-6 ISO_646.irv:1991 ISO646-US IBM367 cp367 "
     "csASCII"},
    {"ISO-8859-1", "ISO-8859-1", kLatin1,
     "latin1 l1 ISO_8859-1 ISO_8859-1:1987 iso-ir-100 IBM819 CP819 csISOLatin1 iso8859-1"},
    {"ISO-8859-2", "ISO-8859-2", kIconv,
     "latin2 l2 ISO_8859-2 ISO_8859-2:1987 iso-ir-101 csISOLatin2"},
    {"ISO-8859-3", "ISO-8859-3", kIconv,
     "latin3 l3 ISO_8859-3 ISO_8859-3:1988 iso-ir-109 csISOLatin3"},
    {"ISO-8859-4", "ISO-8859-4", kIconv,
     "latin4 l4 ISO_8859-4 ISO_8859-4:1988 iso-ir-110 csISOLatin4"},
    {"ISO-8859-5", "ISO-8859-5", kIconv,
     "cyrillic ISO_8859-5 ISO_8859-5:1988 iso-ir-144 csISOLatinCyrillic"},
    {"ISO-8859-6", "ISO-8859-6", kIconv,
     "arabic ISO_8859-6 ISO_8859-6:1987 iso-ir-127 ECMA-114 ASMO-708 csISOLatinArabic"},
    {"ISO-8859-7", "ISO-8859-7", kIconv,
     "greek greek8 ISO_8859-7 ISO_8859-7:1987 iso-ir-126 ELOT_928 ECMA-118 csISOLatinGreek"},
    {"ISO-8859-8", "ISO-8859-8", kIconv,
     "hebrew ISO_8859-8 ISO_8859-8:1988 iso-ir-138 csISOLatinHebrew"},
    {"ISO-8859-9", "ISO-8859-9", kIconv,
     "latin5 l5 ISO_8859-9 ISO_8859-9:1989 iso-ir-148 csISOLatin5"},
    {"ISO-8859-10", "ISO-8859-10", kIconv, "latin6 l6 ISO_8859-10:1992 iso-ir-157 csISOLatin6"},
    {"ISO-8859-13", "ISO-8859-13", kIconv, "latin7 ISO_8859-13 csISO885913"},
    {"ISO-8859-14", "ISO-8859-14", kIconv,
     "latin8 l8 iso-celtic ISO_8859-14 ISO_8859-14:1998 iso-ir-199 csISO885914"},
    {"ISO-8859-15", "ISO-8859-15", kIconv, "Latin-9 latin9 ISO_8859-15 csISO885915"},
    {"ISO-8859-16", "ISO-8859-16", kIconv,
     "latin10 l10 ISO_8859-16 ISO_8859-16:2001 iso-ir-226 csISO885916"},
    {"UTF-16BE", "UTF-16BE", kIconv, "csUTF16BE"},
    {"UTF-16LE", "UTF-16LE", kIconv, "csUTF16LE"},
    // With a byte-order mark: written big-endian, read either way, big-endian
    // when unmarked (RFC 2781); glibc would assume the machine's order.
    {"UTF-16", "UTF-16", kBom16, "csUTF16 utf16"},
    {"UTF-32BE", "UTF-32BE", kIconv, "csUTF32BE"},
    {"UTF-32LE", "UTF-32LE", kIconv, "csUTF32LE"},
    {"UTF-32", "UTF-32", kBom32, "csUTF32 utf32"},
    {"UTF-7", "UTF-7", kIconv, "csUTF7 utf7"},
    {"IBM437", "IBM437", kIconv, "cp437 437 csPC8CodePage437"},
    {"IBM850", "IBM850", kIconv, "cp850 850 csPC850Multilingual"},
    {"IBM852", "IBM852", kIconv, "cp852 852 csPCp852"},
    {"IBM855", "IBM855", kIconv, "cp855 855 csIBM855"},
    {"IBM857", "IBM857", kIconv, "cp857 857 csIBM857"},
    {"IBM00858", "IBM858", kIconv,
     "IBM858 cp858 CCSID00858 CP00858 PC-Multilingual-850+euro csIBM00858"},
    {"IBM860", "IBM860", kIconv, "cp860 860 csIBM860"},
    {"IBM861", "IBM861", kIconv, "cp861 861 cp-is csIBM861"},
    {"IBM862", "IBM862", kIconv, "cp862 862 csPC862LatinHebrew"},
    {"IBM863", "IBM863", kIconv, "cp863 863 csIBM863"},
    {"IBM864", "IBM864", kIconv, "cp864 csIBM864"},
    {"IBM865", "IBM865", kIconv, "cp865 865 csIBM865"},
    {"IBM866", "IBM866", kIconv, "cp866 866 csIBM866"},
    {"IBM869", "IBM869", kIconv, "cp869 869 cp-gr csIBM869"},
    {"IBM037", "IBM037", kIconv,
     "cp037 ebcdic-cp-us ebcdic-cp-ca ebcdic-cp-wt ebcdic-cp-nl csIBM037"},
    {"IBM273", "IBM273", kIconv, "CP273 csIBM273"},
    {"IBM500", "IBM500", kIconv, "CP500 ebcdic-cp-be ebcdic-cp-ch csIBM500"},
    {"IBM1047", "IBM1047", kIconv, "IBM-1047 cp1047 csIBM1047"},
    {"windows-874", "CP874", kIconv, "cp874 cswindows874"},
    {"windows-1250", "CP1250", kIconv, "cp1250 cswindows1250"},
    {"windows-1251", "CP1251", kIconv, "cp1251 cswindows1251"},
    {"windows-1252", "CP1252", kIconv, "cp1252 cswindows1252"},
    {"windows-1253", "CP1253", kIconv, "cp1253 cswindows1253"},
    {"windows-1254", "CP1254", kIconv, "cp1254 cswindows1254"},
    {"windows-1255", "CP1255", kIconv, "cp1255 cswindows1255"},
    {"windows-1256", "CP1256", kIconv, "cp1256 cswindows1256"},
    {"windows-1257", "CP1257", kIconv, "cp1257 cswindows1257"},
    {"windows-1258", "CP1258", kIconv, "cp1258 cswindows1258"},
    {"KOI8-R", "KOI8-R", kIconv, "csKOI8R koi8r"},
    {"KOI8-U", "KOI8-U", kIconv, "csKOI8U koi8u"},
    {"TIS-620", "TIS-620", kIconv, "csTIS620 tis620"},
    {"Shift_JIS", "SHIFT_JIS", kIconv, "MS_Kanji csShiftJIS sjis shift-jis x-sjis"},
    {"Windows-31J", "WINDOWS-31J", kIconv, "csWindows31J cp932 ms932"},
    {"EUC-JP", "EUC-JP", kIconv,
     "Extended_UNIX_Code_Packed_Format_for_Japanese csEUCPkdFmtJapanese eucjp x-euc-jp"},
    {"ISO-2022-JP", "ISO-2022-JP", kIconv, "csISO2022JP"},
    {"GB2312", "GB2312", kIconv, "csGB2312 EUC-CN euccn"},
    {"GBK", "GBK", kIconv, "CP936 MS936 windows-936 csGBK"},
    {"GB18030", "GB18030", kIconv, "csGB18030"},
    {"Big5", "BIG5", kIconv, "csBig5 big-5 cn-big5"},
    {"Big5-HKSCS", "BIG5-HKSCS", kIconv, "csBig5HKSCS big5hkscs"},
    {"EUC-KR", "EUC-KR", kIconv, "csEUCKR euckr"},
    {"ISO-2022-KR", "ISO-2022-KR", kIconv, "csISO2022KR"},
    {"macintosh", "MACINTOSH", kIconv, "mac csMacintosh"},
};

namespace {

using Unit = OmUniString::Unit;
constexpr unsigned long kNone = ~0UL;
// OmUniString's units, in machine order.
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
const char kUnitsName[] = "UTF-16LE";
#else
const char kUnitsName[] = "UTF-16BE";
#endif

bool builtIn = true;

const iconv_t kClosed = reinterpret_cast<iconv_t>(-1);

// Each set's decoding and encoding descriptors, closed when the process ends.
struct Descriptors {
  explicit Descriptors(unsigned count) : slots(count, {kClosed, kClosed}) {}
  ~Descriptors() {
    for (const auto& [decoder, encoder] : slots) {
      if (decoder != kClosed) iconv_close(decoder);
      if (encoder != kClosed) iconv_close(encoder);
    }
  }
  std::vector<std::pair<iconv_t, iconv_t>> slots;
};

bool IsHigh(Unit u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLow(Unit u) { return u >= 0xDC00 && u <= 0xDFFF; }

// Whether name equals the token [token, token + length), ignoring ASCII case.
bool SameName(const char* name, const char* token, size_t length) {
  for (size_t i = 0; i < length; ++i, ++name) {
    unsigned char a = static_cast<unsigned char>(*name), b = static_cast<unsigned char>(token[i]);
    if (a >= 'A' && a <= 'Z') a = static_cast<unsigned char>(a + 32);
    if (b >= 'A' && b <= 'Z') b = static_cast<unsigned char>(b + 32);
    if (a != b || a == 0) return false;
  }
  return *name == 0;
}

// Runs all n bytes through cd from its initial state into out, growing it as
// needed. False on bad input, with done at the first byte not converted.
// lossy: what iconv reports as converted irreversibly.
bool Run(iconv_t cd, const void* data, size_t n, OmByteBuffer& out, size_t& done, size_t& lossy) {
  iconv(cd, nullptr, nullptr, nullptr, nullptr);
  char* in = const_cast<char*>(static_cast<const char*>(data));
  size_t inLeft = n, used = 0;
  lossy = 0;
  out.SetLength(n * 2 + 16);
  for (bool flushing = false;;) {
    char* o = reinterpret_cast<char*>(out.MutableData()) + used;
    size_t oLeft = out.Length() - used;
    // Flushing writes what a stateful set needs to end in its initial state.
    const size_t r =
        flushing ? iconv(cd, nullptr, nullptr, &o, &oLeft) : iconv(cd, &in, &inLeft, &o, &oLeft);
    used = out.Length() - oLeft;
    if (r != static_cast<size_t>(-1)) {
      lossy += r;
      if (flushing) break;
      flushing = true;
    } else if (errno == E2BIG) {
      out.SetLength(out.Length() * 2);
    } else {
      done = n - inLeft;
      out.SetLength(0);
      return false;
    }
  }
  out.SetLength(used);
  done = n;
  return true;
}

// Strict UTF-8: no overlong forms, surrogates, values above U+10FFFF or
// truncated sequences. Returns the offset of the first bad sequence, or kNone.
unsigned long DecodeUtf8(const unsigned char* b, unsigned long n, Unit* out, unsigned long& units) {
  unsigned long o = 0;
  for (unsigned long i = 0; i < n;) {
    const unsigned char c = b[i];
    if (c < 0x80) {
      out[o++] = c;
      ++i;
      continue;
    }
    unsigned long length;
    uint32_t cp, min;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      length = 3, cp = c & 0x0F, min = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4, cp = c & 0x07, min = 0x10000;
    } else {
      return i;
    }
    if (n - i < length) return i;
    for (unsigned long k = 1; k < length; ++k) {
      if ((b[i + k] & 0xC0) != 0x80) return i;
      cp = (cp << 6) | (b[i + k] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return i;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out[o++] = static_cast<Unit>(0xD800 + (cp >> 10));
      out[o++] = static_cast<Unit>(0xDC00 + (cp & 0x3FF));
    } else {
      out[o++] = static_cast<Unit>(cp);
    }
    i += length;
  }
  units = o;
  return kNone;
}

// Returns the index of an unpaired surrogate, or kNone.
unsigned long EncodeUtf8(const Unit* u, unsigned long n, OmByteBuffer& out) {
  out.SetLength(n * 3);
  unsigned char* o = out.MutableData();
  unsigned long k = 0;
  for (unsigned long i = 0; i < n; ++i) {
    uint32_t c = u[i];
    if (c < 0x80) {
      o[k++] = static_cast<unsigned char>(c);
      continue;
    }
    if (c < 0x800) {
      o[k++] = static_cast<unsigned char>(0xC0 | (c >> 6));
    } else if (IsHigh(static_cast<Unit>(c)) && i + 1 < n && IsLow(u[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (u[++i] - 0xDC00);
      o[k++] = static_cast<unsigned char>(0xF0 | (c >> 18));
      o[k++] = static_cast<unsigned char>(0x80 | ((c >> 12) & 0x3F));
      o[k++] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      out.SetLength(0);
      return i;
    } else {
      o[k++] = static_cast<unsigned char>(0xE0 | (c >> 12));
      o[k++] = static_cast<unsigned char>(0x80 | ((c >> 6) & 0x3F));
    }
    o[k++] = static_cast<unsigned char>(0x80 | (c & 0x3F));
  }
  out.SetLength(k);
  return kNone;
}

// iconv owned to converting something irreversibly without saying where:
// converting one character at a time finds it.
unsigned long FirstLossy(iconv_t cd, const Unit* u, unsigned long n) {
  OmByteBuffer scratch;
  size_t done = 0, lossy = 0;
  for (unsigned long i = 0; i < n;) {
    const unsigned long w = (IsHigh(u[i]) && i + 1 < n && IsLow(u[i + 1])) ? 2 : 1;
    if (!Run(cd, u + i, w * 2, scratch, done, lossy) || lossy != 0) return i;
    i += w;
  }
  return 0;
}

OmCodeset::Method Effective(const OmCodeset& set) {
  const OmCodeset::Method m = set.Via();
  const bool inLine = m == OmCodeset::kAscii || m == OmCodeset::kLatin1 || m == OmCodeset::kUtf8;
  return inLine && !builtIn ? OmCodeset::kIconv : m;
}

// For the byte-order-marked sets: the marks and the two plain variants.
struct Marked {
  unsigned width;
  const unsigned char* big;
  const unsigned char* little;
  const char* bigName;
  const char* littleName;
};

Marked MarksOf(OmCodeset::Method m) {
  static const unsigned char be16[] = {0xFE, 0xFF}, le16[] = {0xFF, 0xFE};
  static const unsigned char be32[] = {0, 0, 0xFE, 0xFF}, le32[] = {0xFF, 0xFE, 0, 0};
  if (m == OmCodeset::kBom16) return {2, be16, le16, "UTF-16BE", "UTF-16LE"};
  return {4, be32, le32, "UTF-32BE", "UTF-32LE"};
}

}  // namespace

void OmCodesetError::Set(Kind kind, const char* codeset, unsigned long position, unsigned unit,
                         int err) {
  kind_ = kind;
  codeset_ = codeset;
  position_ = position;
  unit_ = unit;
  errno_ = err;
}

OmUniString OmCodesetError::Reason() const {
  char text[200];
  switch (kind_) {
    case kMalformed:
      std::snprintf(text, sizeof text, "%s: malformed input at byte %lu", codeset_, position_);
      break;
    case kUnencodable:
      std::snprintf(text, sizeof text, "%s: unit %lu (U+%04X) cannot be encoded", codeset_,
                    position_, unit_);
      break;
    case kUnavailable:
      std::snprintf(text, sizeof text, "%s: iconv_open: %s", codeset_, std::strerror(errno_));
      break;
    default:
      return message_;
  }
  return OmUniString(text);
}

const OmCodeset* OmCodeset::Find(const char* name) {
  if (name == nullptr) return nullptr;
  for (const OmCodeset& set : kTable) {
    if (SameName(name, set.name_, std::strlen(set.name_))) return &set;
    for (const char* a = set.aliases_; *a != 0;) {
      const size_t length = std::strcspn(a, " ");
      if (SameName(name, a, length)) return &set;
      a += length;
      if (*a == ' ') ++a;
    }
  }
  return nullptr;
}

const OmCodeset* OmCodeset::Find(const OmUniString& name) {
  for (unsigned long i = 0; i < name.Length(); ++i) {
    if (name[i] == 0 || name[i] > 0x7E) return nullptr;
  }
  return Find(name.AsAscii().c_str());
}

const OmCodeset& OmCodeset::For(OmEncoding encoding) {
  switch (encoding) {
    case OmEncoding::UTF8:
      return kTable[0];
    case OmEncoding::USASCII:
      return kTable[1];
    default:
      return kTable[2];
  }
}

unsigned OmCodeset::Count() { return sizeof kTable / sizeof kTable[0]; }

const OmCodeset& OmCodeset::At(unsigned i) { return kTable[i]; }

unsigned OmCodeset::Index() const { return static_cast<unsigned>(this - kTable); }

void OmCodeset::UseBuiltIn(bool on) { builtIn = on; }

bool OmCodeset::Open(bool encode, void*& cd, OmCodesetError& err) const {
  // Opening loads and sets up glibc's converter modules, far dearer than a
  // conversion: each set's two descriptors are opened once, when first used,
  // and kept for the life of the process (single-threaded, so never shared).
  static Descriptors open(Count());
  iconv_t& slot = encode ? open.slots[Index()].second : open.slots[Index()].first;
  if (slot == kClosed) {
    slot = encode ? iconv_open(iconv_, kUnitsName) : iconv_open(kUnitsName, iconv_);
    if (slot == kClosed) {
      err.Set(OmCodesetError::kUnavailable, name_, 0, 0, errno);
      return false;
    }
  }
  cd = slot;
  return true;
}

bool OmCodeset::Available(OmCodesetError& err) const {
  void* cd = nullptr;
  return Open(false, cd, err) && Open(true, cd, err);
}

bool OmUniString::CreateFrom(const void* bytes, unsigned long count, const OmCodeset& set,
                             OmUniString& out, OmCodesetError& err) {
  const unsigned char* b = static_cast<const unsigned char*>(bytes);
  err.Clear();
  out = OmUniString();
  const OmCodeset::Method method = Effective(set);
  if (method == OmCodeset::kBom16 || method == OmCodeset::kBom32) {
    const Marked m = MarksOf(method);
    const OmCodeset* plain = OmCodeset::Find(m.bigName);
    unsigned long skip = 0;
    if (count >= m.width && std::memcmp(b, m.big, m.width) == 0) {
      skip = m.width;
    } else if (count >= m.width && std::memcmp(b, m.little, m.width) == 0) {
      skip = m.width;
      plain = OmCodeset::Find(m.littleName);
    }
    if (CreateFrom(b + skip, count - skip, *plain, out, err)) return true;
    err.Set(err.What(), set.name_, err.Position() + skip, 0, err.Errno());
    return false;
  }
  if (count == 0) return true;

  unsigned long bad = kNone;
  if (method == OmCodeset::kIconv) {
    void* cd = nullptr;
    if (!set.Open(false, cd, err)) return false;
    size_t done = 0, lossy = 0;
    if (Run(static_cast<iconv_t>(cd), bytes, count, out.buffer_, done, lossy)) return true;
    bad = done;
  } else {
    out.buffer_.SetLength(count * 2);
    Unit* units = reinterpret_cast<Unit*>(out.buffer_.MutableData());
    unsigned long made = count;
    if (method == OmCodeset::kUtf8) {
      bad = DecodeUtf8(b, count, units, made);
    } else {
      const unsigned char top = method == OmCodeset::kAscii ? 0x7F : 0xFF;
      for (unsigned long i = 0; i < count && bad == kNone; ++i) {
        if (b[i] > top) bad = i;
        units[i] = b[i];
      }
    }
    out.buffer_.SetLength(made * 2);
  }
  if (bad == kNone) return true;
  out = OmUniString();
  err.Set(OmCodesetError::kMalformed, set.name_, bad);
  return false;
}

bool OmUniString::AsCodeset(const OmCodeset& set, OmByteBuffer& out, OmCodesetError& err) const {
  err.Clear();
  out = OmByteBuffer();
  const unsigned long n = Length();
  const OmCodeset::Method method = Effective(set);
  if (method == OmCodeset::kBom16 || method == OmCodeset::kBom32) {
    const Marked m = MarksOf(method);
    OmByteBuffer rest;
    if (!AsCodeset(*OmCodeset::Find(m.bigName), rest, err)) {
      err.Set(err.What(), set.name_, err.Position(), err.Unit(), err.Errno());
      return false;
    }
    out.Append(m.big, m.width);
    out.Append(rest);
    return true;
  }
  if (n == 0) return true;

  unsigned long bad = kNone;
  if (method == OmCodeset::kIconv) {
    void* cd = nullptr;
    if (!set.Open(true, cd, err)) return false;
    size_t done = 0, lossy = 0;
    if (!Run(static_cast<iconv_t>(cd), Units(), n * 2, out, done, lossy)) {
      bad = done / 2;
    } else if (lossy != 0) {
      out = OmByteBuffer();
      bad = FirstLossy(static_cast<iconv_t>(cd), Units(), n);
    }
  } else if (method == OmCodeset::kUtf8) {
    bad = EncodeUtf8(Units(), n, out);
  } else {
    const Unit top = method == OmCodeset::kAscii ? 0x7F : 0xFF;
    out.SetLength(n);
    unsigned char* o = out.MutableData();
    for (unsigned long i = 0; i < n && bad == kNone; ++i) {
      if (Units()[i] > top) bad = i;
      o[i] = static_cast<unsigned char>(Units()[i]);
    }
    if (bad != kNone) out = OmByteBuffer();
  }
  if (bad == kNone) return true;
  err.Set(OmCodesetError::kUnencodable, set.name_, bad, Units()[bad]);
  return false;
}
