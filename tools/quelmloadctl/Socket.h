#ifndef QUELM_TOOLS_QUELMLOADCTL_SOCKET_H_
#define QUELM_TOOLS_QUELMLOADCTL_SOCKET_H_

#include <unistd.h>

#include <chrono>

namespace quelmctl {

// Owns one descriptor and closes it.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

using Clock = std::chrono::steady_clock;

// Milliseconds left until the deadline, at least 0, for poll.
inline int millisecondsUntil(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_SOCKET_H_
