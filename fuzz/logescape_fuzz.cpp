// Any message text through the structured-log escape: the result must be
// one field (no comma, equals sign or line feed) that unescapes to the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/log/OmLog.h"
#include "foundation/string/OmUniString.h"

namespace {

using Unit = OmUniString::Unit;

void check(bool ok) {
  if (!ok) std::abort();
}

// The four escapes, and nothing else, are undone.
OmUniString unescape(const OmUniString& s) {
  static const struct {
    const char* code;
    Unit unit;
  } kEscapes[] = {{"25", '%'}, {"0a", '\n'}, {"2c", ','}, {"3d", '='}};
  OmUniString out;
  for (unsigned long i = 0; i < s.Length(); ++i) {
    if (s[i] != '%') {
      out.Append(s[i]);
      continue;
    }
    bool known = false;
    for (const auto& e : kEscapes) {
      if (i + 2 < s.Length() && s[i + 1] == Unit(e.code[0]) && s[i + 2] == Unit(e.code[1])) {
        out.Append(e.unit);
        i += 2;
        known = true;
        break;
      }
    }
    check(known);  // every percent sign of the result starts an escape
  }
  return out;
}

void checkEscape(const OmUniString& text) {
  const OmUniString escaped = OmLog::EscapeStructured(text);
  unsigned long reserved = 0;
  for (unsigned long i = 0; i < text.Length(); ++i) {
    const Unit u = text[i];
    reserved += u == '%' || u == '\n' || u == ',' || u == '=';
  }
  check(escaped.Length() == text.Length() + 2 * reserved);
  check(escaped.Search(',') < 0 && escaped.Search('=') < 0 && escaped.Search('\n') < 0);
  check(unescape(escaped) == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkEscape(OmUniString::CreateFrom(data, size, OmEncoding::LATIN1));
  checkEscape(OmUniString::CreateFrom(data, size, OmEncoding::UTF8));
  // Units beyond Latin-1, including ones whose low byte is a reserved character.
  std::vector<Unit> pairs(size / 2);
  if (!pairs.empty()) std::memcpy(pairs.data(), data, pairs.size() * 2);
  checkEscape(OmUniString(pairs.data(), pairs.size()));
  return 0;
}
