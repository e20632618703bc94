#ifndef QUELM_FOUNDATION_NET_OMADDRESSRANGE_H_
#define QUELM_FOUNDATION_NET_OMADDRESSRANGE_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmUniString.h"

// A network: an address and a prefix length, "a.b.c.d/n" or "2001:db8::/32";
// a plain address is that one address (/32, /128).
class OmAddressRange {
 public:
  OmAddressRange() = default;  // 0.0.0.0/32

  // Strict: four decimal parts of at most 255 and a prefix of 0 to 32, or an
  // IPv6 address as inet_pton reads it and a prefix of 0 to 128; nothing else
  // (no spaces, no leading "+", no zone). Nothing changes on failure. Host
  // bits below the prefix are ignored ("10.1.2.3/8" is 10.0.0.0/8).
  bool Parse(std::string_view text);
  // An IPv4 range holds IPv4 addresses and their IPv4-mapped IPv6 forms
  // (::ffff:a.b.c.d); an IPv6 range holds IPv6 addresses, an IPv4 address
  // counting as its mapped form.
  bool Contains(const OmInetAddr& address) const;

 private:
  bool parse6(std::string_view text);
  // Clears the bits below the first prefix bits.
  static void maskBelow(unsigned char (&bytes)[16], unsigned prefix);

  bool v6_ = false;
  uint32_t network_ = 0;  // IPv4
  uint32_t mask_ = 0xffffffffu;
  unsigned char network6_[16] = {};  // IPv6, host bits cleared
  unsigned prefix6_ = 128;
};

// A comma-separated list of ranges, "a.b.c.d[/n],2001:db8::[/n],...". Blanks around items
// are allowed; an empty text is the empty list, which contains nothing.
class OmAddressRangeList {
 public:
  // Fails, leaving the list as it was, when any item is not a range.
  bool Parse(const OmUniString& text);
  bool Contains(const OmInetAddr& address) const;
  bool IsEmpty() const { return ranges_.empty(); }
  size_t Size() const { return ranges_.size(); }

 private:
  std::vector<OmAddressRange> ranges_;
};

#endif  // QUELM_FOUNDATION_NET_OMADDRESSRANGE_H_
