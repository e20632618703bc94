#ifndef QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_
#define QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_

#include "foundation/properties/OmDictionary.h"
#include "foundation/string/OmUniString.h"

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
  bool Load(const OmUniString& path);
  // Writes a comment header, the time and every entry; true when written.
  bool Save(const OmUniString& path, const OmUniString& header) const;
  // The value, or null when the key is absent.
  const OmUniString* Get(const OmUniString& key) const;
  void Put(const OmUniString& key, const OmUniString& value);
  void Remove(const OmUniString& key);
  unsigned Length() const;

  enum EscapeMode { kValue, kComment };
  static OmUniString escapeString(const OmUniString& text, EscapeMode mode);
  static OmUniString unescapeValue(const OmUniString& text);

 private:
  OmDictionary<OmProperty> table_;
};

#endif  // QUELM_FOUNDATION_PROPERTIES_OMPROPERTIES_H_
