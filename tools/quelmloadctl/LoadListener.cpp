#include "tools/quelmloadctl/LoadListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace quelmctl {

LoadListener::LoadListener(uint16_t port)
    : sock_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), port_(port) {
  if (!sock_.valid()) {
    error_ = std::string("socket: ") + std::strerror(errno);
    return;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  addr.sin_port = htons(port);
  if (::bind(sock_.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    error_ = "cannot bind UDP port " + std::to_string(port) + ": " + std::strerror(errno);
    return;
  }
  socklen_t len = sizeof addr;
  if (::getsockname(sock_.fd(), reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port_ = ntohs(addr.sin_port);
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
