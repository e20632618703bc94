#include "foundation/net/OmSocket.h"

#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/string/OmEnv.h"
#include "foundation/string/OmOSStream.h"

bool OmSocket::makesock(int type, int family) {
  Close();
  fd_ = ::socket(family, type, 0);
  if (fd_ < 0) {
    OmOSStream args;
    args << family << "," << type << ",0";
    Record(errno, "socket", args.Str());
    return false;
  }
  kind_ = family == AF_UNIX ? kLocalSocket : kInetSocket;
  return true;
}

bool OmSocket::Bind(const OmSocketAddress& addr, connectionType type, bool reuse,
                    unsigned retries, bool verbose) {
  if (!makesock(type == Stream ? SOCK_STREAM : SOCK_DGRAM, addr.Family())) return false;

  if (addr.Family() == AF_UNIX) {
    const std::string path = addr.Path().AsUtf8();
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      Record(errno, "unlink", addr.Path());
      return false;
    }
  }
  if (reuse && !SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_REUSEADDR, "SO_REUSEADDR", 1)) {
    return false;
  }
  // "::" then takes IPv4 clients too, on the one socket, whatever the
  // system's default (net.ipv6.bindv6only) says; and a datagram socket can
  // reach an IPv4-mapped destination.
  if (addr.Family() == AF_INET6 &&
      !SetIntOption(IPPROTO_IPV6, "IPPROTO_IPV6", IPV6_V6ONLY, "IPV6_V6ONLY", 0)) {
    return false;
  }

  OmOSStream args;
  args << fd_ << "," << addr.Describe();
  sockaddr_storage storage;
  if (!addr.ToSockaddr(storage)) {
    Record(ENAMETOOLONG, "bind", args.Str());
    return false;
  }

  // An address still held by a closing connection frees itself after a
  // while, so EADDRINUSE is worth waiting for; a first failure of any other
  // kind is not.
  bool first = true;
  bool printed = false;
  int err = 0;
  for (;;) {
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&storage), addr.Length()) == 0) {
      if (printed) {
        std::fputs("\n", stderr);
        std::fflush(stderr);
      }
      return true;
    }
    err = errno;
    if (first && err != EADDRINUSE) break;
    if (verbose) {
      if (first) {
        if (retries == 0) break;
        std::fprintf(stderr, "A socket is still in use, attempting %d retries...",
                     static_cast<int>(retries));
        printed = true;
      } else {
        std::fputs(".", stderr);
      }
      std::fflush(stderr);
    }
    if (retries == 0) break;
    --retries;
    first = false;
    OmEnv::Current().Sleep(2);
  }
  if (printed) {
    std::fputs("\n", stderr);
    std::fflush(stderr);
  }
  Record(err, "bind", args.Str());
  return false;
}

bool OmSocket::ListenOn(const OmInetAddr& address, unsigned backlog) {
  if (!Bind(OmSocketAddress(address), Stream, true, 0, false) || !Listen(backlog)) return false;
  // Close-on-exec, so that a child process does not inherit the port.
  SetBlocking(false);
  SetCloseOnExec(true);
  return true;
}

bool OmSocket::Listen(unsigned backlog) {
  if (::listen(fd_, static_cast<int>(backlog)) != 0) {
    OmOSStream args;
    args << fd_ << "," << backlog;
    Record(errno, "listen", args.Str());
    return false;
  }
  return true;
}

OmStatus::Value OmSocket::AcceptFrom(const OmSocket& listening, int flags) {
  if (fd_ >= 0) Close();
  fd_ = ::accept4(listening.Fd(), nullptr, nullptr, flags);
  if (fd_ < 0) {
    OmOSStream args;
    args << listening.Fd() << ",0,0";
    Record(errno, "accept", args.Str());
    return OmStatus::Failure;
  }
  kind_ = listening.GetKind();
  return OmStatus::Success;
}

OmStatus::Value OmSocket::AcceptFrom(int fd) {
  if (fd_ >= 0) Close();
  fd_ = ::accept(fd, nullptr, nullptr);
  if (fd_ < 0) {
    OmOSStream args;
    args << fd << ",0,0";
    Record(errno, "accept", args.Str());
    return OmStatus::Failure;
  }
  int domain = AF_INET;
  socklen_t len = sizeof domain;
  if (::getsockopt(fd_, SOL_SOCKET, SO_DOMAIN, &domain, &len) == 0) {
    kind_ = domain == AF_UNIX ? kLocalSocket : kInetSocket;
  }
  return OmStatus::Success;
}

bool OmSocket::Connect(const OmSocketAddress& addr) {
  if (fd_ < 0 && !makesock(SOCK_STREAM, addr.Family())) return false;
  OmOSStream args;
  args << fd_ << "," << addr.Describe() << "," << addr.Length();
  sockaddr_storage storage;
  if (!addr.ToSockaddr(storage)) {
    Record(ENAMETOOLONG, "connect", args.Str());
    return false;
  }
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&storage), addr.Length()) != 0) {
    Record(errno, "connect", args.Str());
    return false;
  }
  return true;
}

OmSocket::ConnectState OmSocket::ConnectionComplete(OmUniString& reason) {
  pollfd p{fd_, POLLOUT, 0};
  const int ready = ::poll(&p, 1, 0);
  if (ready == 0) return ConnectPending;
  OmOSStream args;
  args << fd_;
  if (ready < 0) {
    Record(errno, "poll", args.Str());
    reason = error_.Reason();
    return ConnectFailed;
  }
  int soError = 0;
  socklen_t len = sizeof soError;
  if (::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &soError, &len) != 0) {
    Record(errno, "getsockopt", args.Str());
    reason = error_.Reason();
    return ConnectFailed;
  }
  if (soError != 0) {
    Record(soError, "connect", args.Str());
    reason = error_.Reason();
    return ConnectFailed;
  }
  return Connected;
}

int OmSocket::ReadMessage(void* buf, long len, long& done, OmInetAddr& from) {
  OmSockaddrInet sa;
  socklen_t saLen = sizeof sa;
  std::memset(&sa, 0, sizeof sa);
  const ssize_t n = ::recvfrom(fd_, buf, static_cast<size_t>(len), 0, &sa.any, &saLen);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      done = 0;
      return ioPartial;
    }
    OmOSStream args;
    args << fd_ << ",<address>," << len << ",0";
    Record(errno, "recvfrom", args.Str());
    return ioError;
  }
  done = n;
  from.FromSockaddr(&sa.any, saLen);
  if (n == 0 && len != 0) return ioEndOfFile;
  return n == len ? ioComplete : ioPartial;
}

int OmSocket::WriteMessage(const void* buf, long len, long& done, const OmInetAddr& to) {
  OmSockaddrInet sa;
  const socklen_t saLen = to.ToSockaddr(sa);
  const ssize_t n = ::sendto(fd_, buf, static_cast<size_t>(len), 0, &sa.any, saLen);
  if (n == len) return ioComplete;
  if (n == 0) return ioEndOfFile;
  if (n > 0) {
    done = n;
    return ioPartial;
  }
  if (errno == EAGAIN || errno == EWOULDBLOCK) {
    done = 0;
    return ioPartial;
  }
  const int err = errno;
  OmOSStream args;
  args << fd_ << ",<address>," << len << "," << to << "," << static_cast<int>(saLen);
  Record(err, "sendto", args.Str());
  return ioError;
}

unsigned OmSocket::WriteMessages(mmsghdr* msgs, unsigned count, int& result) {
  const int n = ::sendmmsg(fd_, msgs, count, 0);
  if (n <= 0) {
    // Only the first can have failed: the kernel reports an error on a
    // later one as a shorter count. A datagram goes whole or not at all.
    result = ioPartial;
    if (n == 0 || errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    const int err = errno;
    OmOSStream args;
    args << fd_ << ",<messages>," << count << ",0";
    Record(err, "sendmmsg", args.Str());
    result = ioError;
    return 0;
  }
  result = ioComplete;
  return static_cast<unsigned>(n);
}

namespace {

// An IPv4 client of a dual-stack socket comes as ::ffff:a.b.c.d; it is
// given as the IPv4 address it is, so that logs and allow-lists see it so.
bool ToInet(const sockaddr_storage& storage, socklen_t len, OmInetAddr& addr) {
  if (!addr.FromSockaddr(reinterpret_cast<const sockaddr*>(&storage), len)) return false;
  addr = addr.Unmapped();
  return true;
}

}  // namespace

// getpeername and getsockname share their signature and their failures.
bool OmSocket::NameOf(int (*call)(int, sockaddr*, socklen_t*), const char* callName,
                      OmInetAddr& addr) {
  sockaddr_storage storage;
  socklen_t len = sizeof storage;
  std::memset(&storage, 0, sizeof storage);
  OmOSStream args;
  args << fd_;
  if (call(fd_, reinterpret_cast<sockaddr*>(&storage), &len) != 0) {
    Record(errno, callName, args.Str());
    return false;
  }
  if (!ToInet(storage, len, addr)) {
    Record(EAFNOSUPPORT, callName, args.Str());
    return false;
  }
  return true;
}

bool OmSocket::RemoteAddress(OmInetAddr& addr) { return NameOf(::getpeername, "getpeername", addr); }

bool OmSocket::LocalAddress(OmInetAddr& addr) { return NameOf(::getsockname, "getsockname", addr); }

bool OmSocket::SetIntOption(int level, const char* levelName, int option,
                            const char* optionName, int value) {
  if (::setsockopt(fd_, level, option, &value, sizeof value) == 0) return true;
  const int err = errno;
  OmOSStream args;
  args << fd_ << "," << levelName << "(" << level << ")," << optionName << "(" << option
       << "),(char*)(int " << value << ")," << static_cast<int>(sizeof value);
  Record(err, "setsockopt", args.Str());
  return false;
}

int OmSocket::GetIntOption(int level, const char* levelName, int option,
                           const char* optionName) {
  int value = 0;
  socklen_t len = sizeof value;
  if (::getsockopt(fd_, level, option, &value, &len) == 0) return value;
  const int err = errno;
  OmOSStream args;
  args << fd_ << "," << levelName << "(" << level << ")," << optionName << "(" << option
       << "),(char*)(int*)," << static_cast<int>(sizeof value);
  Record(err, "getsockopt", args.Str());
  return -1;
}

bool OmSocket::SetDelay(bool delay) {
  return SetIntOption(IPPROTO_TCP, "IPPROTO_TCP", TCP_NODELAY, "TCP_NODELAY", delay ? 0 : 1);
}

bool OmSocket::SetKeepAlive(bool on) {
  return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_KEEPALIVE, "SO_KEEPALIVE", on ? 1 : 0);
}

bool OmSocket::SetLinger(bool on, int seconds) {
  linger value{on ? 1 : 0, seconds};
  if (::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &value, sizeof value) == 0) return true;
  const int err = errno;
  OmOSStream args;
  args << fd_ << ",SOL_SOCKET(" << SOL_SOCKET << "),SO_LINGER(" << SO_LINGER
       << "),(char*)(linger " << value.l_onoff << " " << value.l_linger << "),"
       << static_cast<int>(sizeof value);
  Record(err, "setsockopt", args.Str());
  return false;
}

bool OmSocket::SetOOBInLine(bool on) {
  return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_OOBINLINE, "SO_OOBINLINE", on ? 1 : 0);
}

bool OmSocket::SetBroadcast(bool on) {
  return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_BROADCAST, "SO_BROADCAST", on ? 1 : 0);
}

bool OmSocket::SetTransmitBufferSize(unsigned size) {
  return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_SNDBUF, "SO_SNDBUF", static_cast<int>(size));
}

bool OmSocket::SetReceiveBufferSize(unsigned size) {
  return SetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_RCVBUF, "SO_RCVBUF", static_cast<int>(size));
}

int OmSocket::GetTransmitBufferSize() {
  return GetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_SNDBUF, "SO_SNDBUF");
}

int OmSocket::GetReceiveBufferSize() {
  return GetIntOption(SOL_SOCKET, "SOL_SOCKET", SO_RCVBUF, "SO_RCVBUF");
}

bool OmSocket::SetTypeOfService(serviceType type) {
  if (std::getenv("VRX_SET_IP_TOS") == nullptr) return true;
  int tos = 0;
  switch (type) {
    case MinimumCost: tos = 0x02; break;
    case LowDelay: tos = 0x10; break;
    case Reliability: tos = 0x04; break;
    case Throughput: tos = 0x08; break;
    default: return true;
  }
  return SetIntOption(IPPROTO_IP, "IPPROTO_IP", IP_TOS, "IP_TOS", tos);
}
