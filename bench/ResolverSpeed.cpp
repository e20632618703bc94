// quelmresolver: subscriber name look-ups two ways, in a private network
// namespace with a name server on 127.0.0.1 that answers names beginning
// with "good" at once and never answers any other:
//   - gai: the C library's getaddrinfo_a, as the probe uses it (its threads
//     report to a pipe the loop polls), at most 16 look-ups at work;
//   - udp: queries built with res_nmkquery, sent from one UDP socket in the
//     loop and read with ns_initparse, no threads.
// Each runs N look-ups of good names, 16 at a time, first alone and then
// with S silent look-ups started before them (a client's unanswerable
// creates). Prints one line per case: wall time, processor time per look-up,
// the slowest look-up, the peak thread count, and how many were answered
// within the probe's 3 s limit. Needs root (unshare).
#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <resolv.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kWindow = 16;
constexpr double kLimit = 3.0;  // the packaged resolvetimeout

int threads() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Threads:", 0) == 0) return std::atoi(line.c_str() + 8);
  }
  return 0;
}

double cpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

bool enterPrivateNetwork() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return false;
  ifreq lo{};
  std::snprintf(lo.ifr_name, IFNAMSIZ, "lo");
  const int s = socket(AF_INET, SOCK_DGRAM, 0);
  const bool up = ioctl(s, SIOCGIFFLAGS, &lo) == 0 && (lo.ifr_flags |= IFF_UP) && ioctl(s, SIOCSIFFLAGS, &lo) == 0;
  close(s);
  char conf[] = "/tmp/quelm-resolv-XXXXXX";
  const int fd = mkstemp(conf);
  const std::string text = "nameserver 127.0.0.1\noptions timeout:30 attempts:1\n";
  const bool written = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
  if (fd >= 0) close(fd);
  const bool ok = up && written && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount(conf, "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0;
  unlink(conf);
  return ok;
}

// The name server: good* gets 127.0.0.1 for an A query, nothing for others.
void serveNames(int server) {
  unsigned char q[512];
  for (;;) {
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    const ssize_t n = recvfrom(server, q, sizeof q, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
    size_t end = 12;
    while (n > 12 && end < size_t(n) && q[end] != 0) end += q[end] + 1;
    if (n <= 12 || end + 5 > size_t(n) || std::memcmp(q + 13, "good", 4) != 0) continue;
    const bool a = q[end + 1] == 0 && q[end + 2] == 1;
    std::string r(reinterpret_cast<char*>(q), end + 5);
    r[2] = char(0x81), r[3] = char(0x80), r[7] = a, r[8] = r[9] = r[10] = r[11] = 0;
    if (a) r += std::string("\xc0\x0c\0\x01\0\x01\0\0\0\x3c\0\x04\x7f\0\0\x01", 16);
    sendto(server, r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&from), fromLen);
  }
}

struct Result {
  double wall = 0, cpuPerLookUp = 0, slowest = 0;
  int peakThreads = 0, answered = 0;
};

// A look-up method: start(name, tag), then poll() reports ended tags.
class Method {
 public:
  virtual ~Method() = default;
  virtual void start(const std::string& name, int tag) = 0;
  virtual int fd() const = 0;
  virtual void ended(std::map<int, bool>& done) = 0;  // tag -> found
};

int wakeWrite = -1;
void notify(sigval) { (void)!write(wakeWrite, "x", 1); }

class Gai : public Method {
 public:
  Gai() {
    int p[2];
    (void)!pipe2(p, O_NONBLOCK | O_CLOEXEC);
    wake_ = p[0], wakeWrite = p[1];
  }
  void start(const std::string& name, int tag) override {
    auto r = std::make_unique<Req>();
    r->name = name, r->tag = tag;
    r->hints.ai_family = AF_INET, r->hints.ai_socktype = SOCK_DGRAM;
    r->block.ar_name = r->name.c_str(), r->block.ar_request = &r->hints;
    r->event.sigev_notify = SIGEV_THREAD, r->event.sigev_notify_function = notify;
    gaicb* list[1] = {&r->block};
    if (getaddrinfo_a(GAI_NOWAIT, list, 1, &r->event) == 0) running_.push_back(std::move(r));
  }
  int fd() const override { return wake_; }
  void ended(std::map<int, bool>& done) override {
    char b[64];
    while (read(wake_, b, sizeof b) > 0) {
    }
    for (auto it = running_.begin(); it != running_.end();) {
      const int e = gai_error(&(*it)->block);
      if (e == EAI_INPROGRESS) {
        ++it;
        continue;
      }
      done[(*it)->tag] = e == 0;
      if ((*it)->block.ar_result) freeaddrinfo((*it)->block.ar_result);
      it = running_.erase(it);
    }
  }

 private:
  struct Req {
    std::string name;
    int tag;
    addrinfo hints{};
    gaicb block{};
    sigevent event{};
  };
  int wake_ = -1;
  std::list<std::unique_ptr<Req>> running_;
};

class Udp : public Method {
 public:
  Udp() {
    res_ninit(&state_);
    sock_ = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    server_ = state_.nsaddr_list[0];
  }
  ~Udp() override { res_nclose(&state_); close(sock_); }
  void start(const std::string& name, int tag) override {
    unsigned char q[512];
    const int n = res_nmkquery(&state_, QUERY, name.c_str(), ns_c_in, ns_t_a, nullptr, 0, nullptr, q, sizeof q);
    if (n <= 0) return;
    const uint16_t id = uint16_t(tag);  // the query id names the look-up
    q[0] = uint8_t(id >> 8), q[1] = uint8_t(id);
    sendto(sock_, q, size_t(n), 0, reinterpret_cast<sockaddr*>(&server_), sizeof server_);
  }
  int fd() const override { return sock_; }
  void ended(std::map<int, bool>& done) override {
    unsigned char a[512];
    for (ssize_t n; (n = recv(sock_, a, sizeof a, 0)) > 0;) {
      ns_msg msg;
      if (ns_initparse(a, int(n), &msg) != 0) continue;
      bool found = false;
      for (int i = 0; i < ns_msg_count(msg, ns_s_an); ++i) {
        ns_rr rr;
        if (ns_parserr(&msg, ns_s_an, i, &rr) == 0 && ns_rr_type(rr) == ns_t_a && ns_rr_rdlen(rr) == 4) found = true;
      }
      done[ns_msg_id(msg)] = found;
    }
  }

 private:
  struct __res_state state_ {};
  int sock_ = -1;
  sockaddr_in server_{};
};

Result run(Method& m, int lookUps, int silent, int& tagBase) {
  Result r;
  for (int i = 0; i < silent; ++i) m.start("silent" + std::to_string(tagBase + i) + ".quelm.test", tagBase + i);
  tagBase += silent;
  const double cpu0 = cpuSeconds();
  const auto t0 = Clock::now();
  std::map<int, Clock::time_point> started;
  int next = 0, finished = 0;
  while (finished < lookUps) {
    while (next < lookUps && int(started.size()) < kWindow) {
      const int tag = tagBase + next++;
      started[tag] = Clock::now();
      m.start("good" + std::to_string(tag) + ".quelm.test", tag);
    }
    pollfd p{m.fd(), POLLIN, 0};
    poll(&p, 1, 100);
    r.peakThreads = std::max(r.peakThreads, threads());
    std::map<int, bool> done;
    m.ended(done);
    const auto now = Clock::now();
    for (auto it = started.begin(); it != started.end();) {
      const double took = std::chrono::duration<double>(now - it->second).count();
      const auto d = done.find(it->first);
      if (d == done.end() && took < kLimit) {
        ++it;
        continue;
      }
      r.slowest = std::max(r.slowest, took);
      r.answered += d != done.end() && d->second;
      ++finished;
      it = started.erase(it);
    }
  }
  tagBase += lookUps;
  r.wall = std::chrono::duration<double>(Clock::now() - t0).count();
  r.cpuPerLookUp = (cpuSeconds() - cpu0) / lookUps;
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  const int lookUps = argc > 1 ? std::atoi(argv[1]) : 2000;
  const int silent = argc > 2 ? std::atoi(argv[2]) : 24;
  if (!enterPrivateNetwork()) {
    std::fprintf(stderr, "quelmresolver: needs root for a network namespace of its own\n");
    return 77;
  }
  const int server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in at{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
  if (bind(server, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) return 1;
  std::thread(serveNames, server).detach();
  int tags = 1;
  for (const char* kind : {"udp", "gai"}) {
    for (int s : {0, silent}) {
      std::unique_ptr<Method> m;
      if (std::strcmp(kind, "gai") == 0) m = std::make_unique<Gai>(); else m = std::make_unique<Udp>();
      const Result r = run(*m, lookUps, s, tags);
      std::printf("method=%s lookups=%d silent_first=%d wall_s=%.3f cpu_us_per_lookup=%.1f slowest_ms=%.1f "
                  "peak_threads=%d answered=%d\n", kind, lookUps, s, r.wall, r.cpuPerLookUp * 1e6,
                  r.slowest * 1e3, r.peakThreads, r.answered);
      std::fflush(stdout);
    }
  }
  _exit(0);  // the C library's threads still wait on the silent server
}
