#include "probe_runner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <fstream>
#include <sstream>

static sockaddr_in Loopback(int port) {
  return {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

bool Eventually(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
  for (const auto end = std::chrono::steady_clock::now() + timeout;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(20ms);
  }
}

ProbeRunner::ProbeRunner() {
  char tmpl[] = "/tmp/quelm-e2e-XXXXXX";
  dir_ = mkdtemp(tmpl);
  fs::create_directories(dir_ + "/logs"), fs::create_directories(dir_ + "/run");
  port_ = FreePort();
  props_ = {{"port", std::to_string(port_)}, {"logdirectory", dir_ + "/logs"},
            {"piddirectory", dir_ + "/run"}, {"samplerate", "5"}, {"windowsize", "3"}};
}

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof addr;
  bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

ProbeRunner::~ProbeRunner() {
  if (Running()) Stop(SIGKILL);
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

std::string ProbeRunner::SetTool(const std::string& script) {
  WriteFile(dir_ + "/tool", "#!/bin/sh\n" + script);
  chmod((dir_ + "/tool").c_str(), 0755);
  Set("probepath", dir_ + "/tool");
  return dir_ + "/tool";
}

void ProbeRunner::Start() {
  std::string config = ReadFile(base_);
  for (const auto& [key, value] : props_) {  // a key commented out or missing is added
    const std::string line = "\nvarosa.config.quelmloadbalancing." + key + "=";
    const std::regex existing("\n#?" + line.substr(1) + "[^\n]*");
    config = std::regex_search(config, existing) ? std::regex_replace(config, existing, line + value)
                                                 : config + line + value + "\n";
  }
  WriteFile(dir_ + "/quelmloadbalancing.properties", config);
  std::vector<std::string> args = wrapper_;
  args.push_back(QUELM_PROBE_BINARY), args.push_back(dir_);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  status_ = -1;
  pid_ = fork();
  if (pid_ == 0) {
    // A test that dies (a sanitizer's abort, say) takes its probe with it.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Keep the probe's own standard error out of the test output.
    if (FILE* err = fopen((dir_ + "/stderr.txt").c_str(), "w")) dup2(fileno(err), 2);
    for (const auto& [name, value] : env_) setenv(name.c_str(), value.c_str(), 1);
    if (passFd_ >= 0) {
      passFd_ == 3 ? fcntl(3, F_SETFD, 0) : dup2(passFd_, 3);
      setenv("LISTEN_FDS", "1", 1);
      setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    }
    closefrom(passFd_ >= 0 ? 4 : 3);  // nothing of the test process leaks into the probe
    const rlimit files{rlim_t(fileLimit_), rlim_t(fileLimit_)};
    if (fileLimit_ > 0) setrlimit(RLIMIT_NOFILE, &files);
    execv(argv[0], argv.data());
    _exit(126);
  }
}

bool ProbeRunner::Running() const {
  int status = 0;
  if (pid_ > 0 && status_ == -1 && waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return pid_ > 0 && status_ == -1;
}

bool ProbeRunner::WaitUntilPolling() const {
  const std::string wchan = "/proc/" + std::to_string(pid_) + "/wchan";
  Eventually([&] { return !Running() || ReadFile(wchan).find("poll") != std::string::npos; }, 90s);
  return Running();
}

void ProbeRunner::Signal(int sig) const {
  WaitUntilPolling();
  kill(pid_, sig);
}

int ProbeRunner::Stop(int sig) {
  if (Running()) sig == SIGKILL ? (void)kill(pid_, sig) : Signal(sig);
  return Wait();
}

int ProbeRunner::Wait() {
  Eventually([&] { return !Running(); }, 60s);
  return status_;
}

std::vector<int> ProbeRunner::Children() const {
  std::vector<int> pids;
  const std::string id = std::to_string(pid_);
  std::istringstream in(ReadFile("/proc/" + id + "/task/" + id + "/children"));
  for (int p; in >> p;) pids.push_back(p);
  return pids;
}

bool ProbeRunner::WaitForLog(const std::string& text) const {
  return Eventually([&] { return Log().find(text) != std::string::npos; });
}

std::string ProbeRunner::ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void ProbeRunner::WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

int Connect(int port, int flags) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  const sockaddr_in addr = Loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0 ||
      errno == EINPROGRESS) {
    return fd;
  }
  close(fd);
  return -1;
}

std::string SendRequest(int port, const std::string& request) {
  const int fd = Connect(port);
  if (fd < 0) return "<connect failed>";
  std::string reply;
  char buf[4096];
  if (write(fd, request.data(), request.size()) > 0) {
    for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 10000) > 0;) {
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  }
  close(fd);
  return reply;
}

std::string CreateRequest(const std::string& host, int port, int id) {
  return "<znalbreq type=\"create\"><host>" + host + "</host><port>" + std::to_string(port) +
         "</port><samplerate>5000</samplerate><windowsize>3</windowsize><replyfreq>10000</replyfreq><percentchange>"
         "20</percentchange><stat>cpu</stat><id>" + std::to_string(id) + "</id><version>1.0</version></znalbreq>";
}

Ctl::Ctl(std::vector<std::string> args) : out_(tmpfile()), err_(tmpfile()) {
  if (args.empty() || args[0][0] != '/') args.insert(args.begin(), QUELM_CTL_BINARY);
  pid_ = fork();
  if (pid_ == 0) {
    alarm(100);
    dup2(fileno(out_), 1), dup2(fileno(err_), 2);
    closefrom(3);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(126);
  }
}

Ctl::~Ctl() {
  if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  fclose(out_), fclose(err_);
}

// The temporary files, read again from their start.
static std::string Read(FILE* f) {
  return ProbeRunner::ReadFile("/proc/self/fd/" + std::to_string(fileno(f)));
}

std::string Ctl::Err() const { return Read(err_); }

Output Ctl::Finish() {
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(out_), Read(err_)};
}

int ListenPort(const Ctl& listener) {
  std::smatch m;
  std::string err;
  Eventually([&] { return std::regex_search(err = listener.Err(), m, std::regex("port (\\d+)\n")); });
  return m.empty() ? 0 : std::stoi(m[1]);
}

bool HasIpv6Loopback() {
  const int six = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 at{AF_INET6, 0, 0, in6addr_loopback, 0};
  const bool bound = bind(six, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0;
  close(six);
  return bound;
}

std::string MetricsPage(int port, const std::string& host) {
  return Shell("curl -gsf --max-time 10 'http://" + host + ":" + std::to_string(port) + "/metrics'").out;
}

Ctl StartHaproxy(const std::string& dir, const std::string& server) {
  ProbeRunner::WriteFile(dir + "/haproxy.cfg",
      "global\n  stats socket " + dir + "/admin.sock level admin\n"
      "defaults\n  mode tcp\n  timeout connect 1s\n  timeout client 5s\n  timeout server 5s\n"
      "backend be\n  server web1 " + server + "\n");
  return Ctl({"/bin/sh", "-c", "exec haproxy -db -f " + dir + "/haproxy.cfg"});
}

std::string HaproxyState(const std::string& dir) {
  return Shell("echo 'show servers state be' | socat -t 5 - UNIX-CONNECT:" + dir +
               "/admin.sock | awk '$4 == \"web1\" { print $7, $8 }'").out;
}
