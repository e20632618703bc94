#ifndef QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_
#define QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_

#include "foundation/properties/OmDictionary.h"
#include "foundation/string/OmUniString.h"

class OmCodeset;  // foundation/string/OmCodeset.h

// One key=value entry of a properties file.
struct OmProperty {
  OmUniString key;
  OmUniString value;
  const OmUniString& Key() const { return key; }
};

// A properties file: key=value lines, "#" comments, a small escape scheme.
class OmProperties {
 public:
  OmProperties();
  // Adds the file's entries; false only when the file cannot be read.
  // Without a codeset the bytes are read as US-ASCII, leniently. With one
  // they are read strictly: a line that is not valid in it is skipped, and
  // BadLine() tells the first such line (comments aside).
  // Only a regular file of at most kMaxFileBytes is read.
  static constexpr unsigned long kMaxFileBytes = 1UL << 20;
  bool Load(const OmUniString& path, const OmCodeset* codeset = nullptr);
  // The first line (from 1) the last Load skipped as malformed; 0 for none.
  unsigned long BadLine() const { return badLine_; }
  // Writes a comment header, the time and every entry; true when written.
  // With a codeset, what it can hold is written as it stands, not escaped.
  bool Save(const OmUniString& path, const OmUniString& header,
            const OmCodeset* codeset = nullptr) const;
  // The value, or null when the key is absent.
  const OmUniString* Get(const OmUniString& key) const;
  void Put(const OmUniString& key, const OmUniString& value);
  void Remove(const OmUniString& key);
  unsigned Length() const;
  void Clear() { table_.Flush(); }

  // Whether a file can be kept in the set: the file is split at line feeds
  // and its keys found before its encoding is known, so every ASCII
  // character must be the same single byte in it (not UTF-16, EBCDIC, ...).
  static bool Usable(const OmCodeset& codeset);

  enum EscapeMode { kValue, kComment };
  static OmUniString escapeString(const OmUniString& text, EscapeMode mode,
                                  const OmCodeset* codeset = nullptr);
  static OmUniString unescapeValue(const OmUniString& text);

 private:
  void AddLine(const OmUniString& line);

  OmDictionary<OmProperty> table_;
  unsigned long badLine_ = 0;
};

#endif  // QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_
