#ifndef QUELM_FOUNDATION_NET_OMINETADDR_H_
#define QUELM_FOUNDATION_NET_OMINETADDR_H_

#include <netinet/in.h>

#include <cstdint>

#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmUniString.h"

// An IPv4 address (four bytes, network order) with a port.
class OmInetAddr {
 public:
  OmInetAddr() = default;  // the any address, port 0
  OmInetAddr(const OmInetAddr&) = default;
  OmInetAddr& operator=(const OmInetAddr&) = default;
  explicit OmInetAddr(const sockaddr_in& sa) { *this = sa; }
  explicit OmInetAddr(const in_addr& addr, unsigned port = 0);
  OmInetAddr(unsigned char a, unsigned char b, unsigned char c, unsigned char d,
             unsigned port = 0);
  // value holds the address with a.b.c.d as its bytes from most to least
  // significant (0x7f000001 is 127.0.0.1), the same form AsUint32 gives.
  explicit OmInetAddr(uint32_t value, unsigned port = 0);

  OmInetAddr& operator=(const sockaddr_in& sa);

  static OmInetAddr AddressAny() { return OmInetAddr(); }
  static OmInetAddr AddressLoopback() { return OmInetAddr(127, 0, 0, 1); }

  // "a.b.c.d", or "a.b.c.d:port" with the port.
  OmUniString AsString(bool withPort) const;
  // Accepts "a.b.c.d:port" (when withPort) or "a.b.c.d". A port of 0 keeps
  // the current one. Nothing changes on failure.
  bool FromString(const OmUniString& text, bool withPort);

  // The four address bytes in network order; both advance the cursor.
  // Read fails, leaving everything alone, when fewer than four bytes remain.
  bool Read(const unsigned char*& cursor, unsigned long& remaining);
  void Write(unsigned char*& cursor) const;

  unsigned GetPort() const { return port_; }
  void Port(unsigned port) { port_ = static_cast<uint16_t>(port); }
  uint32_t AsUint32() const;
  const unsigned char* Bytes() const { return bytes_; }
  bool IsAddressEqual(const OmInetAddr& other) const;  // ports ignored
  bool operator==(const OmInetAddr& other) const {
    return IsAddressEqual(other) && port_ == other.port_;
  }

  sockaddr_in ToSockaddr() const;

 private:
  unsigned char bytes_[4] = {0, 0, 0, 0};
  uint16_t port_ = 0;
};

// Writes the dotted address and the port, "a.b.c.d:port".
OmOSStream& operator<<(OmOSStream& os, const OmInetAddr& addr);

#endif  // QUELM_FOUNDATION_NET_OMINETADDR_H_
