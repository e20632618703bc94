// The real probe in a temporary folder, connections to it, and child programs.
#ifndef QUELM_TESTS_E2E_PROBE_RUNNER_H_
#define QUELM_TESTS_E2E_PROBE_RUNNER_H_

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Polls cond every 20 ms until it holds (true) or the timeout passes (false).
bool Eventually(const std::function<bool()>& cond, std::chrono::milliseconds timeout = 30s);

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreePort();

// The probe on the sample configuration, own port, log and pid folders, rate 5, window 3.
class ProbeRunner {
 public:
  ProbeRunner();
  ~ProbeRunner();
  // Keys are the short names after "varosa.config.quelmloadbalancing.".
  void Set(const std::string& key, const std::string& value) { props_[key] = value; }
  // Start from the packaged configuration instead of the sample.
  void UsePackaged() { base_ = QUELM_BINARY_DIR "/packaging/quelmloadbalancing.properties"; }
  void LimitFiles(int n) { fileLimit_ = n; }  // RLIMIT_NOFILE of the probe, soft and hard
  std::string SetTool(const std::string& script);  // a shell script as the tool; its path
  // Socket activation: fd becomes descriptor 3 with LISTEN_PID/LISTEN_FDS.
  void PassListener(int fd) { passFd_ = fd; }
  void SetEnv(const std::string& name, const std::string& value) { env_[name] = value; }
  // A program that execs the probe (its arguments up to the probe's path).
  void WrapWith(std::vector<std::string> wrapper) { wrapper_ = std::move(wrapper); }
  void Start();
  // True once the probe sleeps in poll: only then does it act on signals (start-up may be long).
  bool WaitUntilPolling() const;
  void Signal(int sig) const;  // sends sig once the event loop runs
  int Stop(int sig);           // Signal(sig) (SIGKILL at once), Wait()
  int Wait();                  // the exit status, or -1 if the probe still runs after 60 s
  bool Running() const;
  std::vector<int> Children() const;  // pids of the probe's current children

  bool WaitForLog(const std::string& text) const;  // wait for whole texts, never a prefix
  std::string Log() const { return ReadFile(LogPath()); }  // the plain .log of this run
  std::string Csl() const { return ReadFile(CslPath()); }  // the structured .csl
  std::string LogPath() const { return LogBase() + ".log"; }
  std::string CslPath() const { return LogBase() + ".csl"; }
  std::string PidFilePath() const { return dir_ + "/run/quelmloadprobe.pid"; }
  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  const std::string& dir() const { return dir_; }

  static std::string ReadFile(const std::string& path);
  static void WriteFile(const std::string& path, const std::string& text);

 private:
  // The sample's files hold the pid; the package's do not.
  std::string LogBase() const {
    const std::string withPid = dir_ + "/logs/quelmloadprobe" + std::to_string(pid_) + "_error";
    return fs::exists(withPid + ".log") ? withPid : dir_ + "/logs/quelmloadprobe";
  }
  std::string dir_;
  std::map<std::string, std::string> props_, env_;
  std::vector<std::string> wrapper_;
  int passFd_ = -1;
  std::string base_ = QUELM_SOURCE_DIR "/config/quelmloadbalancing.properties.sample";
  int pid_ = -1, port_ = 0, fileLimit_ = 0;
  mutable int status_ = -1;
};

// A TCP connection to 127.0.0.1:port (maybe pending with SOCK_NONBLOCK), or -1.
int Connect(int port, int flags = 0);
// One request on its own connection; the whole reply.
std::string SendRequest(int port, const std::string& request);
// A create for host:port: rate 5 s, window 3, reply every 10 s, change 20 %, cpu.
std::string CreateRequest(const std::string& host, int port, int id);

struct Output {
  int status = -1;  // exit status; -1 when the program did not exit normally
  std::string out, err;
};

// A child program (quelmloadctl unless given an absolute path), its output in temporary files.
class Ctl {
 public:
  explicit Ctl(std::vector<std::string> args);
  ~Ctl();
  std::string Err() const;
  Output Finish();  // waits for the end (an alarm ends it after 100 s)

 private:
  FILE *out_, *err_;
  pid_t pid_ = -1;
};

inline Output RunCtl(const std::vector<std::string>& args) { return Ctl(args).Finish(); }
inline Output Shell(const std::string& command) { return RunCtl({"/bin/sh", "-c", command}); }

// The UDP port a listening quelmloadctl names on standard error, or 0.
int ListenPort(const Ctl& listener);
bool HasIpv6Loopback();  // ::1 can be bound here
std::string MetricsPage(int port, const std::string& host = "127.0.0.1");
// HAProxy in dir with one server web1; its state as "<admin state> <weight>" (0 ready, 8 drained).
Ctl StartHaproxy(const std::string& dir, const std::string& server);
std::string HaproxyState(const std::string& dir);
// A tool giving one sample of idle 77 at once, then lingering with its output closed.
inline const std::string kIdle77Tool = "echo h1\necho h2\necho '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
                                       "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nexec sleep 60 >&- <&-\n";

#endif  // QUELM_TESTS_E2E_PROBE_RUNNER_H_
