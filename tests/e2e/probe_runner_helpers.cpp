#include "probe_runner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

bool Eventually(const std::function<bool()>& cond, std::chrono::milliseconds timeout) {
  for (const auto end = std::chrono::steady_clock::now() + timeout;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(20ms);
  }
}

ProbeRunner::ProbeRunner() : port_(FreeTcpPort()) {
  char tmpl[] = "/tmp/quelm-e2e-XXXXXX";
  dir_ = mkdtemp(tmpl);
  fs::create_directories(dir_ + "/logs");
  fs::create_directories(dir_ + "/run");
  props_ = {{"port", std::to_string(port_)},     {"filter", "vmstatFilter"},
            {"probepath", "/usr/bin/vmstat -n"}, {"logdirectory", dir_ + "/logs"},
            {"piddirectory", dir_ + "/run"},     {"windowsize", "3"},
            {"samplerate", "5"},                 {"hostlifetime", "86400"},
            {"mincachesize", "10"},              {"maxvirtualmemory", "768"},
            {"maxphysicalmemory", "256"},        {"multiprocessorfactor", "80"}};
}

ProbeRunner::~ProbeRunner() {
  if (Running()) Stop(SIGKILL);
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

void ProbeRunner::Start() {
  std::ostringstream text;
  for (const auto& [key, value] : props_) {
    text << "varosa.config.quelmloadbalancing." << key << "=" << value << "\n";
  }
  WriteFile(dir_ + "/quelmloadbalancing.properties", text.str());
  StartWithArgs({dir_});
}

void ProbeRunner::StartWithArgs(std::vector<std::string> args) {
  args.insert(args.begin(), QUELM_PROBE_BINARY);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  status_ = -1;
  pid_ = fork();
  if (pid_ == 0) {
    // Keep the probe's own standard error out of the test output.
    if (FILE* err = fopen((dir_ + "/stderr.txt").c_str(), "w")) dup2(fileno(err), 2);
    closefrom(3);  // nothing of the test process leaks into the probe
    execv(argv[0], argv.data());
    _exit(126);
  }
}

bool ProbeRunner::Running() const {
  if (pid_ <= 0 || status_ != -1) return false;
  siginfo_t info{};  // ended, without reaping it?
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return false;
  }
  return info.si_pid != pid_;
}

bool ProbeRunner::WaitForPidFile() const {
  return Eventually([&] { return fs::exists(PidFilePath()) || !Running(); }, 60s) &&
         fs::exists(PidFilePath());
}

bool ProbeRunner::WaitUntilPolling() const {
  const std::string wchan = "/proc/" + std::to_string(pid_) + "/wchan";
  return Eventually([&] { return !Running() || ReadFile(wchan).find("poll") != std::string::npos; },
                    60s) &&
         Running();
}

void ProbeRunner::Signal(int sig) const {
  WaitUntilPolling();
  kill(pid_, sig);
}

int ProbeRunner::Stop(int sig) {
  if (status_ != -1) return status_;
  sig == SIGKILL ? (void)kill(pid_, sig) : Signal(sig);
  return Wait(30s);
}

int ProbeRunner::Wait(std::chrono::milliseconds timeout) {
  Eventually([&] {
    int status = 0;
    if (status_ == -1 && waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_ != -1;
  }, timeout);
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

int ProbeRunner::FreeTcpPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

std::string ProbeRunner::ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void ProbeRunner::WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void ProbeRunner::WriteScript(const std::string& path, const std::string& body) {
  WriteFile(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
}

std::string SendRequest(int port, const std::string& request, std::chrono::milliseconds timeout) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    reply = "<connect failed>";
  } else if (request.empty() || write(fd, request.data(), request.size()) > 0) {
    char buf[4096];
    for (const auto end = std::chrono::steady_clock::now() + timeout;
         std::chrono::steady_clock::now() < end;) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      const ssize_t n = read(fd, buf, sizeof buf);
      if (n <= 0) break;
      reply.append(buf, static_cast<size_t>(n));
    }
  }
  close(fd);
  return reply;
}

Output Shell(const std::string& command) {
  Ctl child({"/bin/sh", "-c", command});
  return child.Finish();
}

Ctl::Ctl(std::vector<std::string> args) : out_(tmpfile()), err_(tmpfile()) {
  if (args.empty() || args[0][0] != '/') args.insert(args.begin(), QUELM_CTL_BINARY);
  pid_ = fork();
  if (pid_ == 0) {
    alarm(100);
    dup2(fileno(out_), 1);
    dup2(fileno(err_), 2);
    closefrom(3);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(126);
  }
}

Ctl::~Ctl() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  fclose(out_);
  fclose(err_);
}

Output Ctl::Finish() {
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(out_), Read(err_)};
}

std::string Ctl::Read(FILE* f) {
  std::string text;
  char buf[4096];
  for (ssize_t n; (n = pread(fileno(f), buf, sizeof buf, static_cast<off_t>(text.size()))) > 0;) {
    text.append(buf, static_cast<size_t>(n));
  }
  return text;
}

Output RunCtl(const std::vector<std::string>& args) { return Ctl(args).Finish(); }
