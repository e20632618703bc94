#include "foundation/net/OmAddressRange.h"

#include <arpa/inet.h>

#include <cstring>
#include <string>

namespace {

// A decimal number of 1 to 3 digits no greater than max; advances text.
bool takeNumber(std::string_view& text, unsigned max, unsigned& value) {
  size_t digits = 0;
  value = 0;
  while (digits < text.size() && digits < 4 && text[digits] >= '0' && text[digits] <= '9') {
    value = value * 10 + static_cast<unsigned>(text[digits] - '0');
    ++digits;
  }
  if (digits == 0 || digits > 3 || value > max) return false;
  text.remove_prefix(digits);
  return true;
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool OmAddressRange::Parse(std::string_view text) {
  if (text.find(':') != std::string_view::npos) return parse6(text);
  uint32_t address = 0;
  for (int part = 0; part < 4; ++part) {
    unsigned byte = 0;
    if (part > 0) {
      if (text.empty() || text.front() != '.') return false;
      text.remove_prefix(1);
    }
    if (!takeNumber(text, 255, byte)) return false;
    address = (address << 8) | byte;
  }
  unsigned prefix = 32;
  if (!text.empty()) {
    if (text.front() != '/') return false;
    text.remove_prefix(1);
    if (!takeNumber(text, 32, prefix) || !text.empty()) return false;
  }
  v6_ = false;
  mask_ = prefix == 0 ? 0 : 0xffffffffu << (32 - prefix);
  network_ = address & mask_;
  return true;
}

bool OmAddressRange::parse6(std::string_view text) {
  const size_t slash = text.find('/');
  unsigned prefix = 128;
  if (slash != std::string_view::npos) {
    std::string_view digits = text.substr(slash + 1);
    if (!takeNumber(digits, 128, prefix) || !digits.empty()) return false;
  }
  in6_addr address;
  if (inet_pton(AF_INET6, std::string(text.substr(0, slash)).c_str(), &address) != 1) return false;
  v6_ = true;
  prefix6_ = prefix;
  std::memcpy(network6_, address.s6_addr, 16);
  maskBelow(network6_, prefix);
  return true;
}

void OmAddressRange::maskBelow(unsigned char (&bytes)[16], unsigned prefix) {
  for (unsigned i = 0; i < 16; ++i) {
    const unsigned kept = prefix >= 8 * (i + 1) ? 8 : prefix > 8 * i ? prefix - 8 * i : 0;
    bytes[i] &= static_cast<unsigned char>(0xff00u >> kept);
  }
}

bool OmAddressRange::Contains(const OmInetAddr& address) const {
  if (!v6_) {
    if (!address.IsIPv6()) return (address.AsUint32() & mask_) == network_;
    const OmInetAddr four = address.Unmapped();
    return !four.IsIPv6() && (four.AsUint32() & mask_) == network_;
  }
  unsigned char bytes[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (address.IsIPv6()) {
    std::memcpy(bytes, address.Bytes(), 16);
  } else {
    std::memcpy(bytes + 12, address.Bytes(), 4);
  }
  maskBelow(bytes, prefix6_);
  return std::memcmp(bytes, network6_, 16) == 0;
}

bool OmAddressRangeList::Parse(const OmUniString& text) {
  const std::string all = text.AsUtf8();
  std::vector<OmAddressRange> parsed;
  std::string_view rest = all;
  if (!trimmed(rest).empty()) {
    for (;;) {
      const size_t comma = rest.find(',');
      OmAddressRange range;
      if (!range.Parse(trimmed(rest.substr(0, comma)))) return false;
      parsed.push_back(range);
      if (comma == std::string_view::npos) break;
      rest.remove_prefix(comma + 1);
    }
  }
  ranges_ = std::move(parsed);
  return true;
}

bool OmAddressRangeList::Contains(const OmInetAddr& address) const {
  for (const OmAddressRange& range : ranges_) {
    if (range.Contains(address)) return true;
  }
  return false;
}
