#include "foundation/net/OmInetAddr.h"

#include <cstdio>
#include <cstring>
#include <string>

OmInetAddr::OmInetAddr(const in_addr& addr, unsigned port) {
  std::memcpy(bytes_, &addr.s_addr, 4);
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
  std::memcpy(bytes_, &sa.sin_addr.s_addr, 4);
  port_ = ntohs(sa.sin_port);
  return *this;
}

OmUniString OmInetAddr::AsString(bool withPort) const {
  char text[32];
  if (withPort) {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", bytes_[0], bytes_[1], bytes_[2],
                  bytes_[3], static_cast<unsigned>(port_));
  } else {
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", bytes_[0], bytes_[1], bytes_[2], bytes_[3]);
  }
  return OmUniString(text);
}

bool OmInetAddr::FromString(const OmUniString& text, bool withPort) {
  const std::string s = text.AsAscii();
  // Parsed as longs so that an over-long number cannot wrap into range.
  unsigned long a = 0, b = 0, c = 0, d = 0, port = 0;
  bool havePort = false;
  if (withPort && std::sscanf(s.c_str(), "%lu.%lu.%lu.%lu:%lu", &a, &b, &c, &d, &port) == 5) {
    havePort = true;
  } else if (std::sscanf(s.c_str(), "%lu.%lu.%lu.%lu", &a, &b, &c, &d) != 4) {
    return false;
  }
  if (a > 255 || b > 255 || c > 255 || d > 255 || port > 65535) return false;
  bytes_[0] = static_cast<unsigned char>(a);
  bytes_[1] = static_cast<unsigned char>(b);
  bytes_[2] = static_cast<unsigned char>(c);
  bytes_[3] = static_cast<unsigned char>(d);
  if (havePort && port != 0) Port(static_cast<unsigned>(port));
  return true;
}

bool OmInetAddr::Read(const unsigned char*& cursor, unsigned long& remaining) {
  if (remaining < 4) return false;
  std::memcpy(bytes_, cursor, 4);
  cursor += 4;
  remaining -= 4;
  return true;
}

void OmInetAddr::Write(unsigned char*& cursor) const {
  std::memcpy(cursor, bytes_, 4);
  cursor += 4;
}

uint32_t OmInetAddr::AsUint32() const {
  return (static_cast<uint32_t>(bytes_[0]) << 24) | (static_cast<uint32_t>(bytes_[1]) << 16) |
         (static_cast<uint32_t>(bytes_[2]) << 8) | bytes_[3];
}

bool OmInetAddr::IsAddressEqual(const OmInetAddr& other) const {
  return std::memcmp(bytes_, other.bytes_, 4) == 0;
}

sockaddr_in OmInetAddr::ToSockaddr() const {
  sockaddr_in sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port_);
  std::memcpy(&sa.sin_addr.s_addr, bytes_, 4);
  return sa;
}

OmOSStream& operator<<(OmOSStream& os, const OmInetAddr& addr) {
  return os << addr.AsString(true);
}
