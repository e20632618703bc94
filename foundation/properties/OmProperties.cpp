#include "foundation/properties/OmProperties.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "foundation/string/OmCodeset.h"
#include "foundation/string/OmFile.h"
#include "foundation/string/OmTimeVal.h"

namespace {

constexpr OmUniString::Unit kBackslash = '\\';

// Reads four units as a hexadecimal number the way strtol does: leading
// white space, a sign and a 0x prefix are accepted, and the number ends at
// the first unit that is not a hexadecimal digit (0 when none is).
OmUniString::Unit ParseHex4(const OmUniString& text, unsigned long at) {
  char digits[5];
  for (int k = 0; k < 4; ++k) {
    OmUniString::Unit u = text[at + static_cast<unsigned long>(k)];
    digits[k] = (u > 0 && u < 128) ? static_cast<char>(u) : '?';
  }
  digits[4] = '\0';
  return static_cast<OmUniString::Unit>(strtol(digits, nullptr, 16));
}

void AppendHex4(OmUniString& out, OmUniString::Unit u) {
  static const char kDigits[] = "0123456789abcdef";
  for (int shift = 12; shift >= 0; shift -= 4) {
    out.Append(static_cast<OmUniString::Unit>(kDigits[(u >> shift) & 0xf]));
  }
}

// Whether the set has a form for the unit on its own (a lone surrogate has none).
bool Holds(const OmCodeset* codeset, OmUniString::Unit u) {
  if (codeset == nullptr) return false;
  OmUniString one;
  one.Append(u);
  OmByteBuffer bytes;
  OmCodesetError err;
  return one.AsCodeset(*codeset, bytes, err);
}

}  // namespace

OmProperties::OmProperties() : table_(4, 0) {}

bool OmProperties::Load(const OmUniString& path, const OmCodeset* codeset) {
  OmByteBuffer bytes;
  // A FIFO or device (/dev/zero) as the file would hang or bloat start-up.
  if (!OmFile::ReadFile(path.AsUtf8().c_str(), bytes, kMaxFileBytes)) return false;
  badLine_ = 0;
  if (codeset == nullptr) {
    OmUniString text = OmUniString::CreateFrom(bytes, OmEncoding::USASCII);
    std::vector<OmUniString> lines;
    Split(text, lines, '\n');
    for (const OmUniString& line : lines) AddLine(line);
    return true;
  }
  // Line by line, so that one bad line costs only its own entry. In every
  // usable set a line feed byte is a line feed, a "#" byte is "#", and a
  // line starts in the set's initial state. Comments are never read, so
  // what they hold is not reported.
  const unsigned char* b = bytes.Data();
  const unsigned long n = bytes.Length();
  OmUniString line;
  OmCodesetError err;
  for (unsigned long start = 0, number = 1; start <= n; ++number) {
    unsigned long end = start;
    while (end < n && b[end] != '\n') ++end;
    if (OmUniString::CreateFrom(b + start, end - start, *codeset, line, err)) {
      AddLine(line);
    } else if (badLine_ == 0 && b[start] != '#') {
      badLine_ = number;
    }
    start = end + 1;
  }
  return true;
}

void OmProperties::AddLine(const OmUniString& line) {
  long eq = line.Search('=');
  if (eq < 0) return;
  if (line[0] == '#') return;
  OmUniString key = line.SubString(0, static_cast<unsigned long>(eq));
  Put(key, unescapeValue(line.SubString(static_cast<unsigned long>(eq) + 1)));
}

bool OmProperties::Usable(const OmCodeset& codeset) {
  std::string ascii = "\t\n\r";
  for (char c = ' '; c < 127; ++c) ascii += c;
  const OmUniString text(ascii.c_str());
  OmByteBuffer bytes;
  OmUniString back;
  OmCodesetError err;
  return text.AsCodeset(codeset, bytes, err) && bytes.Length() == ascii.size() &&
         std::equal(ascii.begin(), ascii.end(), bytes.Data()) &&
         OmUniString::CreateFrom(ascii.data(), ascii.size(), codeset, back, err) && back == text;
}

bool OmProperties::Save(const OmUniString& path, const OmUniString& header,
                        const OmCodeset* codeset) const {
  OmUniString text("# written by props\n# ");
  text += escapeString(header, kComment);
  text += "\n\n# Written at: ";
  text += OmTimeVal::now().AsRFC1123();
  text += "\n\n";
  table_.ForEach([&text, codeset](const OmProperty& p) {
    text += p.key;
    text.Append('=');
    text += escapeString(p.value, kValue, codeset);
    text.Append('\n');
  });
  if (codeset == nullptr) {
    return OmFile::WriteFile(path.AsUtf8().c_str(), text.AsEncoding(OmEncoding::USASCII));
  }
  OmByteBuffer bytes;
  OmCodesetError err;
  return text.AsCodeset(*codeset, bytes, err) && OmFile::WriteFile(path.AsUtf8().c_str(), bytes);
}

const OmUniString* OmProperties::Get(const OmUniString& key) const {
  const OmProperty* p = table_.Find(key);
  return p != nullptr ? &p->value : nullptr;
}

void OmProperties::Put(const OmUniString& key, const OmUniString& value) {
  table_.Remove(key);
  auto entry = std::make_unique<OmProperty>();
  entry->key = key;
  entry->value = value;
  table_.Insert(std::move(entry));
}

void OmProperties::Remove(const OmUniString& key) { table_.Remove(key); }

unsigned OmProperties::Length() const { return table_.Length(); }

OmUniString OmProperties::escapeString(const OmUniString& text, EscapeMode mode,
                                       const OmCodeset* codeset) {
  OmUniString out;
  for (unsigned long i = 0; i < text.Length(); ++i) {
    OmUniString::Unit u = text[i];
    if (u == '\n') {
      out += (mode == kComment) ? "\n# " : "\\n";
    } else if (u == '\r') {
      out += "\\r";
    } else if (u == '\t') {
      out += "\\t";
    } else if (u >= 128 && Holds(codeset, u)) {
      out.Append(u);
    } else if (u < 32 || u >= 128) {
      out += "\\u";
      AppendHex4(out, u);
    } else {
      out.Append(u);
    }
  }
  return out;
}

// Backslash escapes of a loaded value. A \u escape is decoded only when more
// than six units remain from the backslash on; one that ends the value just
// loses its backslash. Saved files depend on this, so it stays.
OmUniString OmProperties::unescapeValue(const OmUniString& text) {
  OmUniString out;
  unsigned long n = text.Length();
  unsigned long i = 0;
  while (i < n) {
    OmUniString::Unit u = text[i];
    if (u != kBackslash || i + 1 >= n) {
      out.Append(u);
      ++i;
      continue;
    }
    OmUniString::Unit next = text[i + 1];
    if (next == 'n') {
      out.Append('\n');
    } else if (next == 'r') {
      out.Append('\r');
    } else if (next == 't') {
      out.Append('\t');
    } else if (next == 'u' && n > i + 6) {
      out.Append(ParseHex4(text, i + 2));
      i += 6;
      continue;
    } else {
      out.Append(next);
    }
    i += 2;
  }
  return out;
}
