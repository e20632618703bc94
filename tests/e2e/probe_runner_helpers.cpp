#include "probe_runner.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

ProbeRunner::ProbeRunner() {
  char tmpl[] = "/tmp/quelm-e2e-XXXXXX";
  dir_ = mkdtemp(tmpl);
  logDir_ = dir_ + "/logs";
  pidDir_ = dir_ + "/run";
  fs::create_directories(logDir_);
  fs::create_directories(pidDir_);
  port_ = FreeTcpPort();
  props_ = {
      {"port", std::to_string(port_)},
      {"filter", "vmstatFilter"},
      {"probepath", "/usr/bin/vmstat -n"},
      {"logdirectory", logDir_},
      {"piddirectory", pidDir_},
      {"windowsize", "3"},
      {"samplerate", "5"},
      {"hostlifetime", "86400"},
      {"mincachesize", "10"},
      {"maxvirtualmemory", "768"},
      {"maxphysicalmemory", "256"},
      {"multiprocessorfactor", "80"},
  };
}

ProbeRunner::~ProbeRunner() {
  if (Running()) Stop(SIGKILL, std::chrono::seconds(5));
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

void ProbeRunner::WriteConfig() {
  std::ostringstream text;
  for (const auto& [key, value] : props_) {
    text << "varosa.config.quelmloadbalancing." << key << "=" << value << "\n";
  }
  WriteFile(dir_ + "/quelmloadbalancing.properties", text.str());
}

void ProbeRunner::Start(const std::vector<std::string>& extraArgs) {
  WriteConfig();
  std::vector<std::string> args{dir_};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  StartWithArgs(args);
}

void ProbeRunner::StartWithArgs(const std::vector<std::string>& args) {
  std::vector<std::string> all{QUELM_PROBE_BINARY};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  status_ = -1;
  pid_ = fork();
  if (pid_ == 0) {
    // Keep the probe's own standard error out of the test output.
    const std::string errPath = dir_ + "/stderr.txt";
    FILE* err = fopen(errPath.c_str(), "w");
    if (err != nullptr) dup2(fileno(err), 2);
    closefrom(3);  // nothing of the test process leaks into the probe
    if (fileLimit_ != 0) {
      const rlimit limit{fileLimit_, fileLimit_};
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    execv(argv[0], argv.data());
    _exit(126);
  }
}

namespace {

// True once the child has ended, without reaping it.
bool HasEnded(pid_t pid) {
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) return true;
  return info.si_pid == pid;
}

}  // namespace

bool ProbeRunner::Running() const {
  if (pid_ <= 0 || status_ != -1) return false;
  return !HasEnded(pid_);
}

bool ProbeRunner::WaitForPidFile(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (fs::exists(PidFilePath())) return true;
    if (HasEnded(pid_)) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool ProbeRunner::WaitUntilPolling(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const std::string wchan = "/proc/" + std::to_string(pid_) + "/wchan";
  while (std::chrono::steady_clock::now() < end) {
    if (HasEnded(pid_)) return false;
    if (ReadFile(wchan).find("poll") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

std::vector<int> ProbeRunner::Children() const {
  std::vector<int> pids;
  std::istringstream in(ReadFile("/proc/" + std::to_string(pid_) + "/task/" +
                                 std::to_string(pid_) + "/children"));
  for (int p; in >> p;) pids.push_back(p);
  return pids;
}

bool ProbeRunner::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (Log().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int ProbeRunner::Wait(std::chrono::milliseconds timeout) {
  if (status_ != -1) return status_;
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return status_;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

int ProbeRunner::Stop(int sig, std::chrono::milliseconds timeout) {
  if (status_ != -1) return status_;
  kill(pid_, sig);
  return Wait(timeout);
}

std::string ProbeRunner::LogPath() const {
  return logDir_ + "/quelmloadprobe" + std::to_string(pid_) + "_error.log";
}

std::string ProbeRunner::CslPath() const {
  return logDir_ + "/quelmloadprobe" + std::to_string(pid_) + "_error.csl";
}

std::string ProbeRunner::Log() const { return ReadFile(LogPath()); }
std::string ProbeRunner::Csl() const { return ReadFile(CslPath()); }

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
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

void ProbeRunner::WriteScript(const std::string& path, const std::string& body) {
  WriteFile(path, "#!/bin/sh\n" + body);
  chmod(path.c_str(), 0755);
}

std::string SendRequest(int port, const std::string& request, std::chrono::milliseconds timeout) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return "<connect failed>";
  }
  if (!request.empty()) (void)!write(fd, request.data(), request.size());
  std::string reply;
  const auto end = std::chrono::steady_clock::now() + timeout;
  char buf[4096];
  while (std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return reply;
}
