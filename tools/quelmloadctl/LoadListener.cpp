#include "tools/quelmloadctl/LoadListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace quelmctl {

LoadListener::LoadListener(uint16_t port) : port_(port) {
  // One IPv6 socket on "::" with IPV6_V6ONLY off hears both families; a
  // machine without IPv6 gets an IPv4 socket as before.
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_addr = in6addr_any;
  six.sin6_port = htons(port);
  const int off = 0;
  Socket dual(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (dual.valid() && ::setsockopt(dual.fd(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) == 0 &&
      ::bind(dual.fd(), reinterpret_cast<sockaddr*>(&six), sizeof six) == 0) {
    sock_.reset(dual.release());
  } else {
    sock_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock_.valid()) {
      error_ = std::string("socket: ") + std::strerror(errno);
      return;
    }
    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(INADDR_ANY);
    four.sin_port = htons(port);
    if (::bind(sock_.fd(), reinterpret_cast<sockaddr*>(&four), sizeof four) != 0) {
      error_ = "cannot bind UDP port " + std::to_string(port) + ": " + std::strerror(errno);
      return;
    }
  }
  sockaddr_storage bound{};
  socklen_t len = sizeof bound;
  if (::getsockname(sock_.fd(), reinterpret_cast<sockaddr*>(&bound), &len) == 0) {
    port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                              : reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  }
}

LoadListener::Result LoadListener::receive(std::string& packet, const Clock::time_point* deadline) {
  // A load packet is a few hundred bytes; anything up to a full datagram fits.
  static char buf[65536];
  while (true) {
    pollfd p{sock_.fd(), POLLIN, 0};
    const int n = ::poll(&p, 1, deadline != nullptr ? millisecondsUntil(*deadline) : -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      error_ = std::string("poll: ") + std::strerror(errno);
      return Result::Failed;
    }
    if (n == 0) return Result::Timeout;
    const ssize_t got = ::recv(sock_.fd(), buf, sizeof buf, 0);
    if (got < 0) {
      // A port-unreachable report from an earlier send is no packet.
      if (errno == EINTR || errno == EAGAIN || errno == ECONNREFUSED) continue;
      error_ = std::string("recv: ") + std::strerror(errno);
      return Result::Failed;
    }
    packet.assign(buf, static_cast<size_t>(got));
    return Result::Packet;
  }
}

}  // namespace quelmctl
