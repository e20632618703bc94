#include "Fanout.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "ProcStat.h"

namespace {

using Clock = std::chrono::steady_clock;

int BindUdp(int& port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  // Room for bursts: many hosts may fire in the same turn.
  const int size = 4 << 20;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port = ntohs(addr.sin_port);
  return fd;
}

// Only the CPU entry, with a percent-change threshold that cannot fire, so
// every packet comes from a host's send timer.
std::string CreateRequest(int id, int udpPort, int replyFreqMs) {
  return "<znalbreq type=\"create\"><host>127.0.0.1</host><port>" + std::to_string(udpPort) +
         "</port><samplerate>5000</samplerate><windowsize>3</windowsize><replyfreq>" +
         std::to_string(replyFreqMs) +
         "</replyfreq><percentchange>100</percentchange><stat>cpu</stat><id>" +
         std::to_string(id) + "</id><version>1.0</version></znalbreq>";
}

}  // namespace

Subscribers::Subscribers(int sockets) {
  ep_ = epoll_create1(EPOLL_CLOEXEC);
  for (int i = 0; i < std::max(1, sockets); ++i) {
    int port = 0;
    const int fd = BindUdp(port);
    fds_.push_back(fd);
    ports_.push_back(port);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep_, EPOLL_CTL_ADD, fd, &ev);
  }
}

Subscribers::~Subscribers() {
  close(ep_);
  for (int fd : fds_) close(fd);
}

void Subscribers::Create(int port, int firstId, int count, int replyFreqMs, FanoutResult& r) {
  const Clock::time_point createStart = Clock::now();
  for (int i = 0; i < count; ++i) {
    const int udpPort = ports_[static_cast<size_t>(i) % ports_.size()];
    const Clock::time_point t0 = Clock::now();
    const std::string reply = FetchOnce(port, CreateRequest(firstId + i, udpPort, replyFreqMs));
    r.createMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    if (reply.find("<znalbreply type=\"create\">") != std::string::npos) {
      ++r.created;
    } else {
      ++r.refused;
    }
    // Packets of the first hosts arrive during long runs of creates.
    if (i % 256 == 255) Drain();
  }
  r.createSeconds += std::chrono::duration<double>(Clock::now() - createStart).count();
}

void Subscribers::Drain() {
  char drain[2048];
  for (int fd : fds_) {
    while (recv(fd, drain, sizeof drain, 0) > 0) {
    }
  }
}

PacketCount Subscribers::Count(pid_t pid, double seconds, std::string* sample,
                               const std::function<void()>& during) {
  PacketCount c;
  Drain();
  std::atomic<bool> done{during == nullptr};
  const ProcSample before = ReadProcSample(pid);
  const Clock::time_point start = Clock::now();
  std::thread side;
  if (during) {
    side = std::thread([&] {
      during();
      done = true;
    });
  }
  const Clock::time_point end =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  std::vector<epoll_event> events(16);
  while (Clock::now() < end || !done) {
    const int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 50);
    for (int k = 0; k < n; ++k) {
      const int fd = events[static_cast<size_t>(k)].data.fd;
      char buf[2048];
      for (ssize_t got; (got = recv(fd, buf, sizeof buf, 0)) > 0;) {
        ++c.datagrams;
        const std::string packet(buf, static_cast<size_t>(got));
        if (packet.starts_with("<?xml version=\"1.0\"?><znalbdata><id>") &&
            packet.ends_with("</stats></znalbdata>")) {
          ++c.wellFormed;
        }
        if (sample != nullptr && sample->empty()) *sample = packet;
      }
    }
  }
  const ProcSample after = ReadProcSample(pid);
  c.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  c.probeCpuSeconds = after.cpuSeconds - before.cpuSeconds;
  if (side.joinable()) side.join();
  return c;
}

FanoutResult RunFanout(const FanoutOptions& o) {
  FanoutResult r;
  Subscribers subscribers(o.sockets);
  subscribers.Create(o.port, o.firstId, o.hosts, o.replyFreqMs, r);
  // Every host sends one reply period after its creation and then every
  // period; a window that starts half a period in holds whole periods.
  std::this_thread::sleep_for(
      std::chrono::milliseconds(o.warmupMs < 0 ? o.replyFreqMs / 2 : o.warmupMs));

  const long long logsBefore = o.logDir.empty() ? 0 : FolderBytes(o.logDir);
  r.quiet = subscribers.Count(o.pid, o.seconds, &r.sample);
  if (!o.logDir.empty()) r.logBytes = FolderBytes(o.logDir) - logsBefore;

  if (o.floodConns > 0) {
    LoadOptions load;
    load.port = o.port;
    load.concurrency = o.floodConns;
    load.seconds = o.floodSeconds;
    load.request = "GET /?get&znalbinfo";
    load.timeoutMs = 20000;
    r.flood = subscribers.Count(o.pid, o.floodSeconds, nullptr,
                                [&] { r.floodLoad = RunLoad(load); });
  }
  return r;
}

double MedianOf(const std::vector<double>& values, size_t from, size_t to) {
  to = std::min(to, values.size());
  if (from >= to) return 0;
  std::vector<double> part(values.begin() + static_cast<long>(from),
                           values.begin() + static_cast<long>(to));
  std::nth_element(part.begin(), part.begin() + static_cast<long>(part.size() / 2), part.end());
  return part[part.size() / 2];
}
