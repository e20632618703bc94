#ifndef QUELM_FOUNDATION_STRING_OMCODESET_H_
#define QUELM_FOUNDATION_STRING_OMCODESET_H_

#include "foundation/string/OmError.h"
#include "foundation/string/OmUniString.h"

// Why a strict conversion failed, and where: nothing is ever replaced, so the
// caller learns the first place the text and the character set disagree.
class OmCodesetError : public OmError {
 public:
  enum Kind {
    kNone,
    kMalformed,    // decoding: the bytes at Position() are not valid in the set
    kUnencodable,  // encoding: unit Position() (Unit()) has no form in the set
    kUnavailable,  // the C library cannot convert the set (Errno() from iconv_open)
  };

  void Set(Kind kind, const char* codeset, unsigned long position, unsigned unit = 0, int err = 0);
  void Clear() { Set(kNone, "", 0); }
  Kind What() const { return kind_; }
  const char* Codeset() const { return codeset_; }
  // A byte offset into the input for kMalformed, a unit index for kUnencodable.
  unsigned long Position() const { return position_; }
  unsigned Unit() const { return unit_; }
  int Errno() const { return errno_; }
  // "KOI8-R: malformed input at byte 12", "ISO-8859-1: unit 3 (U+4E2D) cannot
  // be encoded", "EUC-JP: iconv_open: <system text>".
  OmUniString Reason() const override;

 private:
  Kind kind_ = kNone;
  const char* codeset_ = "";
  unsigned long position_ = 0;
  unsigned unit_ = 0;
  int errno_ = 0;
};

// A character set known by a canonical name and its registered aliases. The
// conversions themselves are OmUniString::AsCodeset and the strict
// OmUniString::CreateFrom; they run on the C library's iconv, except for
// US-ASCII, ISO-8859-1 and UTF-8, which are converted in line because the
// probe's own texts use them and iconv takes two to three times as long.
class OmCodeset {
 public:
  enum Method { kIconv, kAscii, kLatin1, kUtf8, kBom16, kBom32 };

  // By canonical name or alias, ignoring ASCII case; null when unknown.
  static const OmCodeset* Find(const char* name);
  static const OmCodeset* Find(const OmUniString& name);
  // The strict counterparts of the lenient OmEncoding conversions.
  static const OmCodeset& For(OmEncoding encoding);
  static unsigned Count();
  static const OmCodeset& At(unsigned i);

  const char* Name() const { return name_; }
  // Space-separated, as registered (case as the registries spell them).
  const char* Aliases() const { return aliases_; }
  const char* IconvName() const { return iconv_; }
  Method Via() const { return method_; }

  // Opens (and keeps) the set's two iconv descriptors; false with
  // kUnavailable when the C library lacks the set.
  bool Available(OmCodesetError& err) const;

  // Off: every set goes through iconv, so tests can hold the in-line paths to
  // iconv's results and timings can compare the two.
  static void UseBuiltIn(bool on);

 private:
  friend class OmUniString;
  OmCodeset(const char* name, const char* iconv, Method method, const char* aliases)
      : name_(name), iconv_(iconv), aliases_(aliases), method_(method) {}
  unsigned Index() const;
  // The set's cached iconv descriptor towards (encode) or from UTF-16.
  bool Open(bool encode, void*& cd, OmCodesetError& err) const;

  static const OmCodeset kTable[];
  const char* name_;
  const char* iconv_;
  const char* aliases_;
  Method method_;
};

#endif  // QUELM_FOUNDATION_STRING_OMCODESET_H_
