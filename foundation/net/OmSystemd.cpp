#include "foundation/net/OmSystemd.h"

#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/net/OmSocket.h"
#include "foundation/string/OmFile.h"

namespace {

// The passed descriptors not yet taken.
std::vector<int>& passed() {
  static std::vector<int> fds;
  return fds;
}

// A decimal number that fills text, at most max; -1 otherwise.
long long decimal(const char* text, long long max) {
  if (text == nullptr || *text == '\0') return -1;
  long long v = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return -1;
    v = v * 10 + (*p - '0');
    if (v > max) return -1;
  }
  return v;
}

int intOption(int fd, int level, int option) {
  int value = 0;
  socklen_t length = sizeof value;
  return getsockopt(fd, level, option, &value, &length) == 0 ? value : -1;
}

// The local port of a listening TCP socket over IPv4 or IPv6; -1 otherwise.
int listeningPort(int fd) {
  if (intOption(fd, SOL_SOCKET, SO_TYPE) != SOCK_STREAM) return -1;
  if (intOption(fd, SOL_SOCKET, SO_ACCEPTCONN) != 1) return -1;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
  }
  return -1;
}

}  // namespace

int OmSystemd::PassedCount(const char* listenPid, const char* listenFds, int pid) {
  if (decimal(listenPid, 1LL << 31) != pid) return 0;
  const long long count = decimal(listenFds, 65536);
  return count < 0 ? 0 : static_cast<int>(count);
}

void OmSystemd::AcceptPassedSockets() {
  const int count = PassedCount(getenv("LISTEN_PID"), getenv("LISTEN_FDS"), getpid());
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  AcceptPassed(kFirstPassedFd, count);
}

void OmSystemd::AcceptPassed(int first, int count) {
  for (int fd = first; fd < first + count; ++fd) {
    OmFile::SetCloseOnExec(fd, true);
    passed().push_back(fd);
  }
}

bool OmSystemd::TakeListener(OmSocket& socket, unsigned port) {
  std::vector<int>& fds = passed();
  for (auto it = fds.begin(); it != fds.end(); ++it) {
    if (listeningPort(*it) != static_cast<int>(port)) continue;
    socket.Close();
    socket.SetFd(*it, socket.GetKind());
    fds.erase(it);
    return true;
  }
  return false;
}

void OmSystemd::Reset() { passed().clear(); }

bool OmSystemd::NotifyAddress(const char* text, sockaddr_un& address, socklen_t& length) {
  if (text == nullptr || (text[0] != '/' && text[0] != '@')) return false;
  const size_t n = strlen(text);
  if (n < 2 || n > sizeof address.sun_path) return false;
  address = sockaddr_un{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, text, n);
  // An abstract name starts with a zero byte and is as long as it is: no
  // terminator counts.
  if (text[0] == '@') address.sun_path[0] = '\0';
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + (text[0] == '/' ? 1 : 0));
  if (text[0] == '/' && n == sizeof address.sun_path) return false;
  return true;
}

bool OmSystemd::Notify(const std::string& state, std::string& reason) {
  const char* text = getenv("NOTIFY_SOCKET");
  if (text == nullptr) return true;
  sockaddr_un address;
  socklen_t length = 0;
  if (!NotifyAddress(text, address, length)) {
    reason = std::string("NOTIFY_SOCKET is not a socket name: ") + text;
    return false;
  }
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    reason = std::string("socket: ") + strerror(errno);
    return false;
  }
  const ssize_t sent = sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), length);
  const int err = errno;
  close(fd);
  if (sent == static_cast<ssize_t>(state.size())) return true;
  reason = std::string("sendto ") + text + ": " + (sent < 0 ? strerror(err) : "short datagram");
  return false;
}

uint64_t OmSystemd::WatchdogMicroseconds(const char* usec, const char* watchdogPid, int pid) {
  if (watchdogPid != nullptr && decimal(watchdogPid, 1LL << 31) != pid) return 0;
  const long long value = decimal(usec, 1LL << 62);
  return value < 0 ? 0 : static_cast<uint64_t>(value);
}
