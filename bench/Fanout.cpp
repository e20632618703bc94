#include "Fanout.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "LoadClient.h"
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

FanoutResult RunFanout(const FanoutOptions& o) {
  FanoutResult r;
  std::vector<int> fds, ports;
  for (int i = 0; i < o.sockets; ++i) {
    int port = 0;
    fds.push_back(BindUdp(port));
    ports.push_back(port);
  }

  const Clock::time_point createStart = Clock::now();
  for (int i = 0; i < o.hosts; ++i) {
    const int port = ports[static_cast<size_t>(i % o.sockets)];
    const std::string reply = FetchOnce(o.port, CreateRequest(o.firstId + i, port, o.replyFreqMs));
    if (reply.find("<znalbreply type=\"create\">") != std::string::npos) {
      ++r.created;
    } else {
      ++r.refused;
    }
  }
  r.createSeconds = std::chrono::duration<double>(Clock::now() - createStart).count();
  // Every host sends one reply period after its creation and then every
  // period; a window that starts half a period in holds whole periods.
  std::this_thread::sleep_for(
      std::chrono::milliseconds(o.warmupMs < 0 ? o.replyFreqMs / 2 : o.warmupMs));

  const int ep = epoll_create1(EPOLL_CLOEXEC);
  for (int fd : fds) {
    char drain[2048];
    while (recv(fd, drain, sizeof drain, 0) > 0) {
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev);
  }
  const ProcSample before = ReadProcSample(o.pid);
  const long long logsBefore = o.logDir.empty() ? 0 : FolderBytes(o.logDir);
  const Clock::time_point start = Clock::now();
  const Clock::time_point end =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.seconds));
  std::vector<epoll_event> events(16);
  while (Clock::now() < end) {
    const int n = epoll_wait(ep, events.data(), static_cast<int>(events.size()), 50);
    for (int k = 0; k < n; ++k) {
      const int fd = events[static_cast<size_t>(k)].data.fd;
      char buf[2048];
      for (ssize_t got; (got = recv(fd, buf, sizeof buf, 0)) > 0;) {
        ++r.datagrams;
        const std::string packet(buf, static_cast<size_t>(got));
        if (packet.starts_with("<?xml version=\"1.0\"?><znalbdata><id>") &&
            packet.ends_with("</stats></znalbdata>")) {
          ++r.wellFormed;
        }
        if (r.sample.empty()) r.sample = packet;
      }
    }
  }
  const ProcSample after = ReadProcSample(o.pid);
  r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  r.probeCpuSeconds = after.cpuSeconds - before.cpuSeconds;
  if (!o.logDir.empty()) r.logBytes = FolderBytes(o.logDir) - logsBefore;
  close(ep);
  for (int fd : fds) close(fd);
  return r;
}
