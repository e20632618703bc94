#include "LoadClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

// Starts a non-blocking connect; -1 when it failed at once (errno set).
int StartConnect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const sockaddr_in addr = Loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
      errno == EINPROGRESS) {
    return fd;
  }
  const int err = errno;
  close(fd);
  errno = err;
  return -1;
}

int PendingError(int fd) {
  int err = 0;
  socklen_t len = sizeof err;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return errno;
  return err;
}

struct Slot {
  int fd = -1;
  bool connected = false;
  Clock::time_point start;
  std::string reply;
};

class Engine {
 public:
  explicit Engine(const LoadOptions& o) : opt_(o), slots_(static_cast<size_t>(o.concurrency)) {
    ep_ = epoll_create1(EPOLL_CLOEXEC);
  }
  ~Engine() {
    for (Slot& s : slots_) {
      if (s.fd >= 0) close(s.fd);
    }
    close(ep_);
  }

  LoadResult Run() {
    const Clock::time_point begin = Clock::now();
    begin_ = begin;
    stopAt_ = opt_.seconds > 0 ? begin + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(opt_.seconds))
                               : Clock::time_point::max();
    for (size_t i = 0; i < slots_.size(); ++i) Start(i);
    Clock::time_point last = begin;
    std::vector<epoll_event> events(slots_.size() + 1);
    while (busy_ > 0) {
      const int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 10);
      for (int k = 0; k < n; ++k) Handle(events[static_cast<size_t>(k)].data.u64);
      const Clock::time_point now = Clock::now();
      if (n <= 0 || now - lastSweep_ > std::chrono::milliseconds(20)) Sweep(now);
      last = now;
    }
    // A timed run counts completions inside its window only.
    const Clock::time_point end = opt_.seconds > 0 ? stopAt_ : last;
    result_.elapsed = std::chrono::duration<double>(end - begin).count();
    return result_;
  }

 private:
  bool MayStart(Clock::time_point now) const {
    if (opt_.total > 0 && result_.started >= opt_.total) return false;
    return now < stopAt_;
  }

  void Start(size_t i) {
    Slot& s = slots_[i];
    // A connect refused at once frees the slot again; try the next one.
    for (;;) {
      const Clock::time_point now = Clock::now();
      if (!MayStart(now)) return;
      ++result_.started;
      s.start = now;
      s.reply.clear();
      s.connected = false;
      s.fd = StartConnect(opt_.port);
      if (s.fd >= 0) break;
      ++result_.refused;
    }
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.u64 = i;
    epoll_ctl(ep_, EPOLL_CTL_ADD, s.fd, &ev);
    ++busy_;
  }

  void Finish(size_t i, long LoadResult::*counter) {
    Slot& s = slots_[i];
    const Clock::time_point now = Clock::now();
    // What ends after a timed run's window does not count.
    if (now <= stopAt_) {
      if (counter == &LoadResult::ok && opt_.close == CloseMode::AfterReply) {
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now - s.start);
        result_.latencyUs.push_back(static_cast<uint32_t>(us.count()));
        result_.doneAtS.push_back(std::chrono::duration<float>(now - begin_).count());
      }
      ++(result_.*counter);
    }
    close(s.fd);
    s.fd = -1;
    --busy_;
    Start(i);
  }

  void Handle(uint64_t i) {
    Slot& s = slots_[i];
    if (s.fd < 0) return;
    if (!s.connected) {
      const int err = PendingError(s.fd);
      if (err != 0) {
        Finish(i, err == ECONNRESET ? &LoadResult::reset : &LoadResult::refused);
        return;
      }
      s.connected = true;
      const ssize_t w = send(s.fd, opt_.request.data(), opt_.request.size(), MSG_NOSIGNAL);
      if (w != static_cast<ssize_t>(opt_.request.size())) {
        Finish(i, &LoadResult::reset);
        return;
      }
      if (opt_.close == CloseMode::ResetAfterSend || opt_.close == CloseMode::HalfCloseThenReset) {
        const linger hard{1, 0};
        setsockopt(s.fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
      }
      if (opt_.close == CloseMode::HalfCloseThenReset) shutdown(s.fd, SHUT_WR);
      if (opt_.close == CloseMode::AfterSend || opt_.close == CloseMode::ResetAfterSend) {
        Finish(i, &LoadResult::ok);
        return;
      }
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = i;
      epoll_ctl(ep_, EPOLL_CTL_MOD, s.fd, &ev);
      return;
    }
    char buf[65536];
    for (;;) {
      const ssize_t n = recv(s.fd, buf, sizeof buf, 0);
      if (n > 0 && opt_.close == CloseMode::HalfCloseThenReset) {
        Finish(i, &LoadResult::ok);
        return;
      }
      if (n > 0) {
        const size_t from = s.reply.size() > opt_.endTag.size() ? s.reply.size() - opt_.endTag.size()
                                                                : 0;
        s.reply.append(buf, static_cast<size_t>(n));
        if (s.reply.find(opt_.endTag, from) != std::string::npos) {
          Finish(i, &LoadResult::ok);
          return;
        }
        continue;
      }
      if (n == 0) {
        Finish(i, &LoadResult::eof);
      } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
        Finish(i, &LoadResult::reset);
      }
      return;
    }
  }

  void Sweep(Clock::time_point now) {
    lastSweep_ = now;
    const auto limit = std::chrono::milliseconds(opt_.timeoutMs);
    for (size_t i = 0; i < slots_.size(); ++i) {
      Slot& s = slots_[i];
      if (s.fd >= 0 && now - s.start > limit) {
        Finish(i, &LoadResult::timeouts);
      } else if (s.fd < 0) {
        Start(i);  // a slot left idle by a burst of refusals
      }
    }
  }

  const LoadOptions& opt_;
  std::vector<Slot> slots_;
  int ep_ = -1;
  long busy_ = 0;
  Clock::time_point stopAt_;
  Clock::time_point begin_;
  Clock::time_point lastSweep_;
  LoadResult result_;
};

}  // namespace

double LoadResult::PerSecondBetween(double from, double to) const {
  if (to <= from) return 0;
  const long n = std::count_if(doneAtS.begin(), doneAtS.end(),
                               [&](float t) { return t >= from && t < to; });
  return static_cast<double>(n) / (to - from);
}

double LoadResult::PercentileMs(double p) const {
  if (latencyUs.empty()) return 0;
  std::vector<uint32_t> sorted(latencyUs);
  std::sort(sorted.begin(), sorted.end());
  const double rank = p / 100.0 * static_cast<double>(sorted.size() - 1);
  return sorted[static_cast<size_t>(std::lround(rank))] / 1000.0;
}

long LoadResult::SlowerThan(uint32_t ms) const {
  return std::count_if(latencyUs.begin(), latencyUs.end(),
                       [ms](uint32_t us) { return us >= ms * 1000; });
}

LoadResult RunLoad(const LoadOptions& options) {
  Engine engine(options);
  return engine.Run();
}

std::vector<int> OpenIdle(int port, int count, int timeoutMs, long& failed) {
  failed = 0;
  std::vector<int> pending;
  for (int i = 0; i < count; ++i) {
    const int fd = StartConnect(port);
    if (fd < 0) {
      ++failed;
    } else {
      pending.push_back(fd);
    }
  }
  const int ep = epoll_create1(EPOLL_CLOEXEC);
  for (int fd : pending) {
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
  }
  std::vector<int> connected;
  size_t waiting = pending.size();
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<epoll_event> events(256);
  while (waiting > 0 && Clock::now() < end) {
    const int n = epoll_wait(ep, events.data(), static_cast<int>(events.size()), 50);
    for (int k = 0; k < n; ++k) {
      const int fd = events[static_cast<size_t>(k)].data.fd;
      epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
      --waiting;
      if (PendingError(fd) == 0) {
        connected.push_back(fd);
      } else {
        close(fd);
        ++failed;
      }
    }
  }
  // Whatever is still connecting after the timeout counts as failed.
  for (int fd : pending) {
    if (std::find(connected.begin(), connected.end(), fd) != connected.end()) continue;
    if (epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr) == 0) {
      close(fd);
      ++failed;
    }
  }
  close(ep);
  return connected;
}

std::string FetchOnce(int port, const std::string& request, int timeoutMs, int delayMs) {
  // A plain blocking exchange: the whole reply up to the server's close.
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in addr = Loopback(port);
  timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  if (delayMs > 0) {
    const int small = 8192;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  }
  std::string reply;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 &&
      send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(request.size())) {
    if (delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    char buf[65536];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return reply;
}
