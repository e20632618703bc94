// Any file content through the properties loader, then a save and a second
// load. The loaded table is compared with a plain map built from the same
// lines, and the saved file must load back to the same keys.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "foundation/properties/OmProperties.h"
#include "foundation/string/OmCodeset.h"
#include "foundation/string/OmUniString.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

std::string& tempDir() {
  static std::string dir;
  return dir;
}

void removeTempDir() {
  std::error_code ignored;
  if (!tempDir().empty()) std::filesystem::remove_all(tempDir(), ignored);
}

bool writeFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

using Key = std::u16string;

Key asKey(const OmUniString& s) { return Key(s.Units(), s.Units() + s.Length()); }

// What Load should hold: the lines with an equals sign that are no comments,
// the last occurrence of a key winning.
std::map<Key, OmUniString> expectedEntries(const uint8_t* data, size_t size) {
  std::map<Key, OmUniString> entries;
  const OmUniString text = OmUniString::CreateFrom(data, size, OmEncoding::USASCII);
  std::vector<OmUniString> lines;
  Split(text, lines, '\n');
  for (const OmUniString& line : lines) {
    const long eq = line.Search('=');
    if (eq < 0 || line[0] == '#') continue;
    entries[asKey(line.SubString(0, static_cast<unsigned long>(eq)))] =
        OmProperties::unescapeValue(line.SubString(static_cast<unsigned long>(eq) + 1));
  }
  return entries;
}

// A saved key is written as it stands, in US-ASCII.
OmUniString savedKey(const Key& key) {
  OmUniString k(reinterpret_cast<const OmUniString::Unit*>(key.data()), key.size());
  return OmUniString::CreateFrom(k.AsEncoding(OmEncoding::USASCII), OmEncoding::USASCII);
}

// Values survive a save and load unless they hold a backslash or end in a
// unit that is written as a \u escape (kept asymmetries of the format).
bool valueRoundTrips(const OmUniString& v) {
  if (v.Search('\\') >= 0) return false;
  if (v.IsEmpty()) return true;
  const OmUniString::Unit last = v[v.Length() - 1];
  return !(last < 32 || last >= 128) || last == '\n' || last == '\r' || last == '\t';
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/quelmfuzzpropsXXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  tempDir() = pattern;
  std::atexit(removeTempDir);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string in = tempDir() + "/in.properties";
  const std::string out = tempDir() + "/out.properties";
  if (!writeFile(in, data, size)) std::abort();

  OmProperties props;
  check(props.Load(OmUniString(in.c_str())));

  const std::map<Key, OmUniString> expected = expectedEntries(data, size);
  check(props.Length() == expected.size());
  for (const auto& [key, value] : expected) {
    const OmUniString* got = props.Get(OmUniString(reinterpret_cast<const OmUniString::Unit*>(key.data()), key.size()));
    check(got != nullptr && *got == value);
  }
  for (const char* key : {"varosa.config.quelmloadbalancing.port", "", "#", "a"}) {
    const OmUniString* got = props.Get(OmUniString(key));
    check((got != nullptr) == (expected.count(asKey(OmUniString(key))) == 1));
  }

  // Escaping keeps every value on one line of printable ASCII.
  for (const auto& entry : expected) {
    const OmUniString escaped = OmProperties::escapeString(entry.second, OmProperties::kValue);
    for (unsigned long i = 0; i < escaped.Length(); ++i) check(escaped[i] >= 32 && escaped[i] < 128);
    if (valueRoundTrips(entry.second)) {
      check(OmProperties::unescapeValue(escaped) == entry.second);
    }
  }

  check(props.Save(OmUniString(out.c_str()), OmUniString("fuzz\nheader\r\x01")));
  OmProperties again;
  check(again.Load(OmUniString(out.c_str())));

  // Keys come back as saved (units beyond US-ASCII as '?'); two keys that
  // differ only there become one.
  std::map<Key, const OmUniString*> saved;
  for (const auto& [key, value] : expected) saved[asKey(savedKey(key))] = &value;
  check(again.Length() == saved.size());
  for (const auto& [key, value] : expected) {
    const OmUniString* got = again.Get(savedKey(key));
    check(got != nullptr);
    if (saved.size() == expected.size() && valueRoundTrips(value)) check(*got == value);
  }

  // Read as UTF-8, the valid lines' entries are written back as they stand
  // and read again unchanged, with nothing reported as malformed.
  const OmCodeset& utf8 = OmCodeset::For(OmEncoding::UTF8);
  OmProperties strict, reread;
  check(strict.Load(OmUniString(in.c_str()), &utf8));
  check(strict.Save(OmUniString(out.c_str()), OmUniString("fuzz"), &utf8));
  check(reread.Load(OmUniString(out.c_str()), &utf8) && reread.BadLine() == 0);
  check(reread.Length() == strict.Length());
  for (size_t start = 0, end = 0; start <= size; start = end + 1) {
    for (end = start; end < size && data[end] != '\n';) ++end;
    OmUniString line;
    OmCodesetError err;
    const bool valid = OmUniString::CreateFrom(data + start, end - start, utf8, line, err);
    const long eq = valid ? line.Search('=') : -1;
    if (eq < 0 || line[0] == '#') continue;
    const OmUniString* value = strict.Get(line.SubString(0, static_cast<unsigned long>(eq)));
    if (value == nullptr || value->Search('\\') >= 0) continue;
    const OmUniString::Unit last = value->IsEmpty() ? 'x' : (*value)[value->Length() - 1];
    if (last < 32 && last != '\n' && last != '\r' && last != '\t') continue;
    const OmUniString* back = reread.Get(line.SubString(0, static_cast<unsigned long>(eq)));
    check(back != nullptr && *back == *value);
  }

  check(!props.Load(OmUniString((tempDir() + "/missing").c_str())));
  check(props.Length() == expected.size());
  unlink(out.c_str());
  return 0;
}
