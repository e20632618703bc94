#ifndef QUELM_FOUNDATION_NET_OMADDRESSRANGE_H_
#define QUELM_FOUNDATION_NET_OMADDRESSRANGE_H_

#include <cstdint>
#include <string_view>
#include <vector>

#include "foundation/net/OmInetAddr.h"
#include "foundation/string/OmUniString.h"

// An IPv4 network: an address and a prefix length, "a.b.c.d/n"; a plain
// "a.b.c.d" is the one address (/32).
class OmAddressRange {
 public:
  OmAddressRange() = default;  // 0.0.0.0/32

  // Strict: four decimal parts of at most 255, a prefix of 0 to 32, nothing
  // else (no spaces, no leading "+"). Nothing changes on failure. Host bits
  // below the prefix are ignored ("10.1.2.3/8" is 10.0.0.0/8).
  bool Parse(std::string_view text);
  bool Contains(const OmInetAddr& address) const;

 private:
  uint32_t network_ = 0;
  uint32_t mask_ = 0xffffffffu;
};

// A comma-separated list of ranges, "a.b.c.d[/n],...". Blanks around items
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
