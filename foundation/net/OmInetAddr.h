#ifndef QUELM_FOUNDATION_NET_OMINETADDR_H_
#define QUELM_FOUNDATION_NET_OMINETADDR_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmUniString.h"

// The system form of an internet address of either family, large enough for
// both, to hand to sendto, bind and their kin.
union OmSockaddrInet {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

// An internet address with a port: IPv4 (four bytes, network order) unless
// built from an IPv6 address (sixteen bytes). Everything made as before
// (bytes, numbers, sockaddr_in, dotted text) is IPv4 and behaves as it
// always did.
class OmInetAddr {
 public:
  OmInetAddr() = default;  // the IPv4 any address, port 0
  OmInetAddr(const OmInetAddr&) = default;
  OmInetAddr& operator=(const OmInetAddr&) = default;
  explicit OmInetAddr(const sockaddr_in& sa) { *this = sa; }
  explicit OmInetAddr(const sockaddr_in6& sa) { *this = sa; }
  explicit OmInetAddr(const in_addr& addr, unsigned port = 0);
  explicit OmInetAddr(const in6_addr& addr, unsigned port = 0);
  OmInetAddr(unsigned char a, unsigned char b, unsigned char c, unsigned char d,
             unsigned port = 0);
  // value holds the address with a.b.c.d as its bytes from most to least
  // significant (0x7f000001 is 127.0.0.1), the same form AsUint32 gives.
  explicit OmInetAddr(uint32_t value, unsigned port = 0);

  OmInetAddr& operator=(const sockaddr_in& sa);
  OmInetAddr& operator=(const sockaddr_in6& sa);
  // From a system address of either family; false, leaving this alone, for
  // any other family or a length too short for its family.
  bool FromSockaddr(const sockaddr* sa, socklen_t length);

  static OmInetAddr AddressAny() { return OmInetAddr(); }
  static OmInetAddr AddressLoopback() { return OmInetAddr(127, 0, 0, 1); }
  // "::", which a socket of the IPv6 family takes as every address of both
  // families; and "::1".
  static OmInetAddr AddressAny6();
  static OmInetAddr AddressLoopback6();

  // "a.b.c.d" or "a.b.c.d:port"; an IPv6 address in its short form, "::1",
  // or "[::1]:port" with the port.
  OmUniString AsString(bool withPort) const;
  // How logs name a client: an IPv4 address alone, as they always have; an
  // IPv6 one in brackets with the port, "[2001:db8::5]:4444".
  OmUniString AsPeerString() const;
  // Accepts "a.b.c.d:port" (when withPort) or "a.b.c.d"; then an IPv6
  // address, "[addr]:port" (when withPort), "[addr]" or the bare address.
  // A port of 0 keeps the current one. Nothing changes on failure.
  bool FromString(const OmUniString& text, bool withPort);
  // The address a port listens on, strictly: empty text is the IPv4 any
  // address, else a dotted IPv4 address or a bare IPv6 one, "::" for every
  // address of both families. The address is left alone on failure; the
  // port is set either way.
  bool FromListenText(const OmUniString& text, unsigned port);

  // The four IPv4 address bytes in network order; both advance the cursor.
  // Read fails, leaving everything alone, when fewer than four bytes remain.
  // Read makes the address IPv4; Write writes the first four of an IPv6 one.
  bool Read(const unsigned char*& cursor, unsigned long& remaining);
  void Write(unsigned char*& cursor) const;

  unsigned GetPort() const { return port_; }
  void Port(unsigned port) { port_ = static_cast<uint16_t>(port); }
  int Family() const { return v6_ ? AF_INET6 : AF_INET; }
  bool IsIPv6() const { return v6_; }
  // An IPv6 address of the form ::ffff:a.b.c.d: an IPv4 client of an IPv6 socket.
  bool IsMappedIPv4() const;
  // The IPv4 address (and port) of a mapped one; any other is returned as it is.
  OmInetAddr Unmapped() const;
  // The IPv4 address as a number; 0 for an IPv6 address.
  uint32_t AsUint32() const;
  // Four bytes for IPv4, sixteen for IPv6.
  const unsigned char* Bytes() const { return bytes_; }
  bool IsAddressEqual(const OmInetAddr& other) const;  // ports ignored
  bool operator==(const OmInetAddr& other) const {
    return IsAddressEqual(other) && port_ == other.port_;
  }

  // IPv4 only: an IPv6 address gives the IPv4 any address with the port.
  sockaddr_in ToSockaddr() const;
  // Either family; returns the length of the form filled in.
  socklen_t ToSockaddr(OmSockaddrInet& sa) const;

 private:
  unsigned char bytes_[16] = {};
  uint16_t port_ = 0;
  bool v6_ = false;
};

// Writes AsString(true): "a.b.c.d:port" or "[addr]:port".
OmOSStream& operator<<(OmOSStream& os, const OmInetAddr& addr);

#endif  // QUELM_FOUNDATION_NET_OMINETADDR_H_
