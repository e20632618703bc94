#include "tools/quelmloadctl/CommandClient.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "tools/quelmloadctl/Socket.h"

namespace quelmctl {

namespace {

// The probe keeps a connection open for up to a second after its reply, so
// a reply document ends at its end tag, not at the close.
const std::string kEndTag = "</znalbreply>";
constexpr size_t kMaxReply = 4 << 20;

// poll that resumes after signals; 0 on timeout.
int pollUntil(pollfd& p, Clock::time_point deadline) {
  while (true) {
    const int n = ::poll(&p, 1, millisecondsUntil(deadline));
    if (n >= 0 || errno != EINTR) return n;
  }
}

}  // namespace

CommandClient::CommandClient(std::string host, uint16_t port, std::chrono::milliseconds timeout)
    : host_(std::move(host)), port_(port), timeout_(timeout) {}

std::string CommandClient::address() const {
  const bool ipv6 = host_.find(':') != std::string::npos;
  return (ipv6 ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
}

bool CommandClient::fail(const std::string& what, int err) {
  error_ = what + ": " + std::strerror(err);
  return false;
}

bool CommandClient::exchange(const std::string& request, std::string& reply) {
  reply.clear();
  const Clock::time_point deadline = Clock::now() + timeout_;
  const std::string waited = " within " + std::to_string(timeout_.count()) + " ms";

  // Either family; a name with both is tried in the order the look-up gives.
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int rc = ::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found);
  if (rc != 0) {
    error_ = "cannot resolve " + host_ + ": " + ::gai_strerror(rc);
    return false;
  }
  std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, ::freeaddrinfo);

  Socket sock;
  for (const addrinfo* at = found; at != nullptr; at = at->ai_next) {
    Socket attempt(::socket(at->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!attempt.valid()) return fail("socket", errno);
    int err = 0;
    if (::connect(attempt.fd(), at->ai_addr, at->ai_addrlen) != 0) {
      if (errno != EINPROGRESS) {
        err = errno;
      } else {
        pollfd p{attempt.fd(), POLLOUT, 0};
        const int n = pollUntil(p, deadline);
        if (n < 0) return fail("poll", errno);
        if (n == 0) {
          error_ = "cannot connect to " + address() + ": no answer" + waited;
          return false;
        }
        socklen_t len = sizeof err;
        ::getsockopt(attempt.fd(), SOL_SOCKET, SO_ERROR, &err, &len);
      }
    }
    if (err == 0) {
      sock.reset(attempt.release());
      break;
    }
    if (at->ai_next == nullptr) return fail("cannot connect to " + address(), err);
  }

  // One write: the probe takes whatever its first read returns as the
  // whole request.
  const ssize_t sent = ::send(sock.fd(), request.data(), request.size(), MSG_NOSIGNAL);
  if (sent < 0) return fail("cannot send the request to " + address(), errno);
  if (static_cast<size_t>(sent) != request.size()) {
    error_ = "sent only " + std::to_string(sent) + " of " + std::to_string(request.size()) +
             " bytes to " + address();
    return false;
  }

  bool closed = false;
  char buf[4096];
  while (reply.find(kEndTag) == std::string::npos && reply.size() < kMaxReply) {
    pollfd p{sock.fd(), POLLIN, 0};
    const int n = pollUntil(p, deadline);
    if (n < 0) return fail("poll", errno);
    if (n == 0) break;
    const ssize_t got = ::recv(sock.fd(), buf, sizeof buf, 0);
    if (got < 0) {
      if (errno == EAGAIN || errno == EINTR) continue;
      if (!reply.empty()) break;  // a reset after the reply loses nothing
      return fail("cannot read the reply from " + address(), errno);
    }
    if (got == 0) {
      closed = true;
      break;
    }
    reply.append(buf, static_cast<size_t>(got));
  }
  if (reply.empty()) {
    error_ = closed ? address() + " closed the connection without a reply"
                    : "no reply from " + address() + waited;
    return false;
  }
  return true;
}

}  // namespace quelmctl
