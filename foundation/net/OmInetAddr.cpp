#include "foundation/net/OmInetAddr.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The ten zero bytes and two 0xff bytes that begin ::ffff:a.b.c.d.
constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// A port of at most 65535 in decimal digits, all of the text.
bool readPort(const std::string& text, unsigned long& port) {
  if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  port = std::stoul(text);
  return port <= 65535;
}

}  // namespace

OmInetAddr::OmInetAddr(const in_addr& addr, unsigned port) {
  std::memcpy(bytes_, &addr.s_addr, 4);
  Port(port);
}

OmInetAddr::OmInetAddr(const in6_addr& addr, unsigned port) : v6_(true) {
  std::memcpy(bytes_, addr.s6_addr, 16);
  Port(port);
}

OmInetAddr::OmInetAddr(unsigned char a, unsigned char b, unsigned char c, unsigned char d,
                       unsigned port)
    : bytes_{a, b, c, d} {
  Port(port);
}

OmInetAddr::OmInetAddr(uint32_t value, unsigned port)
    : bytes_{static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
             static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)} {
  Port(port);
}

OmInetAddr& OmInetAddr::operator=(const sockaddr_in& sa) {
  *this = OmInetAddr(sa.sin_addr, ntohs(sa.sin_port));
  return *this;
}

OmInetAddr& OmInetAddr::operator=(const sockaddr_in6& sa) {
  *this = OmInetAddr(sa.sin6_addr, ntohs(sa.sin6_port));
  return *this;
}

bool OmInetAddr::FromSockaddr(const sockaddr* sa, socklen_t length) {
  if (sa->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
    *this = *reinterpret_cast<const sockaddr_in*>(sa);
    return true;
  }
  if (sa->sa_family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
    *this = *reinterpret_cast<const sockaddr_in6*>(sa);
    return true;
  }
  return false;
}

OmInetAddr OmInetAddr::AddressAny6() { return OmInetAddr(in6addr_any); }

OmInetAddr OmInetAddr::AddressLoopback6() { return OmInetAddr(in6addr_loopback); }

OmUniString OmInetAddr::AsString(bool withPort) const {
  char text[INET6_ADDRSTRLEN + 16];
  if (v6_) {
    char address[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, bytes_, address, sizeof address);
    if (!withPort) return OmUniString(address);
    std::snprintf(text, sizeof text, "[%s]:%u", address, static_cast<unsigned>(port_));
  } else if (withPort) {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", bytes_[0], bytes_[1], bytes_[2],
                  bytes_[3], static_cast<unsigned>(port_));
  } else {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", bytes_[0], bytes_[1], bytes_[2], bytes_[3]);
  }
  return OmUniString(text);
}

OmUniString OmInetAddr::AsPeerString() const { return AsString(v6_); }

bool OmInetAddr::FromString(const OmUniString& text, bool withPort) {
  const std::string s = text.AsAscii();
  // Parsed as longs so that an over-long number cannot wrap into range.
  unsigned long a = 0, b = 0, c = 0, d = 0, port = 0;
  bool havePort = false;
  if (withPort && std::sscanf(s.c_str(), "%lu.%lu.%lu.%lu:%lu", &a, &b, &c, &d, &port) == 5) {
    havePort = true;
  } else if (std::sscanf(s.c_str(), "%lu.%lu.%lu.%lu", &a, &b, &c, &d) != 4) {
    // IPv6: bracketed when a port may follow, so that its colons stay apart.
    std::string address = s;
    if (!s.empty() && s.front() == '[') {
      const size_t close = s.find(']');
      if (close == std::string::npos) return false;
      address = s.substr(1, close - 1);
      const std::string rest = s.substr(close + 1);
      if (!rest.empty()) {
        if (!withPort || rest.front() != ':' || !readPort(rest.substr(1), port)) return false;
        havePort = true;
      }
    }
    in6_addr parsed;
    if (inet_pton(AF_INET6, address.c_str(), &parsed) != 1) return false;
    const unsigned keptPort = port_;
    *this = OmInetAddr(parsed, keptPort);
    if (havePort && port != 0) Port(static_cast<unsigned>(port));
    return true;
  }
  if (a > 255 || b > 255 || c > 255 || d > 255 || port > 65535) return false;
  const unsigned keptPort = port_;
  *this = OmInetAddr(static_cast<unsigned char>(a), static_cast<unsigned char>(b),
                     static_cast<unsigned char>(c), static_cast<unsigned char>(d), keptPort);
  if (havePort && port != 0) Port(static_cast<unsigned>(port));
  return true;
}

bool OmInetAddr::FromListenText(const OmUniString& text, unsigned port) {
  const std::string s = text.AsAscii();
  in_addr four{};
  in6_addr six{};
  bool ok = true;
  if (s.empty() || inet_pton(AF_INET, s.c_str(), &four) == 1) {
    *this = OmInetAddr(four);
  } else if (inet_pton(AF_INET6, s.c_str(), &six) == 1) {
    *this = OmInetAddr(six);
  } else {
    ok = false;
  }
  Port(port);
  return ok;
}

bool OmInetAddr::Read(const unsigned char*& cursor, unsigned long& remaining) {
  if (remaining < 4) return false;
  in_addr four;
  std::memcpy(&four.s_addr, cursor, 4);
  *this = OmInetAddr(four, port_);
  cursor += 4;
  remaining -= 4;
  return true;
}

void OmInetAddr::Write(unsigned char*& cursor) const {
  std::memcpy(cursor, bytes_, 4);
  cursor += 4;
}

bool OmInetAddr::IsMappedIPv4() const {
  return v6_ && std::memcmp(bytes_, kMappedPrefix, sizeof kMappedPrefix) == 0;
}

OmInetAddr OmInetAddr::Unmapped() const {
  if (!IsMappedIPv4()) return *this;
  return OmInetAddr(bytes_[12], bytes_[13], bytes_[14], bytes_[15], port_);
}

uint32_t OmInetAddr::AsUint32() const {
  if (v6_) return 0;
  return (static_cast<uint32_t>(bytes_[0]) << 24) | (static_cast<uint32_t>(bytes_[1]) << 16) |
         (static_cast<uint32_t>(bytes_[2]) << 8) | bytes_[3];
}

bool OmInetAddr::IsAddressEqual(const OmInetAddr& other) const {
  return v6_ == other.v6_ && std::memcmp(bytes_, other.bytes_, v6_ ? 16 : 4) == 0;
}

sockaddr_in OmInetAddr::ToSockaddr() const {
  sockaddr_in sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port_);
  if (!v6_) std::memcpy(&sa.sin_addr.s_addr, bytes_, 4);
  return sa;
}

socklen_t OmInetAddr::ToSockaddr(OmSockaddrInet& sa) const {
  if (!v6_) {
    sa.v4 = ToSockaddr();
    return sizeof sa.v4;
  }
  std::memset(&sa.v6, 0, sizeof sa.v6);
  sa.v6.sin6_family = AF_INET6;
  sa.v6.sin6_port = htons(port_);
  std::memcpy(sa.v6.sin6_addr.s6_addr, bytes_, 16);
  return sizeof sa.v6;
}

OmOSStream& operator<<(OmOSStream& os, const OmInetAddr& addr) {
  return os << addr.AsString(true);
}
