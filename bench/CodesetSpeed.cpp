// quelmcodeset: the in-line US-ASCII, ISO-8859-1 and UTF-8 conversions of
// OmUniString against the same sets through iconv, on a short line (one tool
// line, a message) and on 64 Ki units. Prints one line per set, size and path.
#include <chrono>
#include <cstdio>
#include <string>

#include "foundation/string/OmCodeset.h"

int main() {
  using Clock = std::chrono::steady_clock;
  const struct { const char* set; std::string sample; } kinds[] = {
      {"US-ASCII", "vmstat 12 34 5678 idle=97 "},
      {"ISO-8859-1", "Gr\xC3\xBC\xC3\x9F" "e caf\xC3\xA9 \xC3\xA0 la cr\xC3\xA8me "},
      {"UTF-8", "Gr\xC3\xBC\xC3\x9F" "e \xE4\xB8\xAD\xE6\x96\x87 \xE2\x82\xAC ok "}};
  for (unsigned long size : {64ul, 65536ul}) {
    for (const auto& k : kinds) {
      const OmCodeset& set = *OmCodeset::Find(k.set);
      std::string utf8;
      while (utf8.size() < size) utf8 += k.sample;
      OmUniString text = OmUniString::FromUtf8(utf8);
      if (text.Length() > size) text = text.SubString(0, size);
      for (bool inLine : {true, false}) {
        OmCodeset::UseBuiltIn(inLine);
        OmByteBuffer bytes;
        OmUniString back;
        OmCodesetError err;
        text.AsCodeset(set, bytes, err);  // also opens iconv's descriptors
        const long rounds = size < 1000 ? 200000 : 400;
        const auto t0 = Clock::now();
        for (long r = 0; r < rounds; ++r) text.AsCodeset(set, bytes, err);
        const auto t1 = Clock::now();
        for (long r = 0; r < rounds; ++r) {
          OmUniString::CreateFrom(bytes.Data(), bytes.Length(), set, back, err);
        }
        const auto t2 = Clock::now();
        const double enc = std::chrono::duration<double, std::nano>(t1 - t0).count() / rounds;
        const double dec = std::chrono::duration<double, std::nano>(t2 - t1).count() / rounds;
        std::printf("set=%s units=%lu path=%s encode_ns=%.0f encode_mbs=%.0f decode_ns=%.0f "
                    "decode_mbs=%.0f\n",
                    k.set, text.Length(), inLine ? "inline" : "iconv", enc,
                    static_cast<double>(bytes.Length()) * 1e3 / enc, dec,
                    static_cast<double>(bytes.Length()) * 1e3 / dec);
      }
    }
  }
  OmCodeset::UseBuiltIn(true);
}
