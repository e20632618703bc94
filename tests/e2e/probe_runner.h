#ifndef QUELM_TESTS_E2E_PROBE_RUNNER_H_
#define QUELM_TESTS_E2E_PROBE_RUNNER_H_

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

using namespace std::chrono_literals;

// Polls cond every 20 ms until it holds (true) or the timeout passes (false).
bool Eventually(const std::function<bool()>& cond, std::chrono::milliseconds timeout = 30s);

// Starts the real probe binary on a configuration in a temporary folder and
// gives tests its logs, pid file and exit status.
class ProbeRunner {
 public:
  ProbeRunner();
  ~ProbeRunner();
  ProbeRunner(const ProbeRunner&) = delete;
  ProbeRunner& operator=(const ProbeRunner&) = delete;

  // Keys are the short names after "varosa.config.quelmloadbalancing.".
  void Set(const std::string& key, const std::string& value) { props_[key] = value; }
  void Unset(const std::string& key) { props_.erase(key); }
  // Writes the configuration and starts the probe on its folder.
  void Start();
  void StartWithArgs(std::vector<std::string> args);
  // Start-up times the processor, which takes long on a loaded machine.
  bool WaitForPidFile() const;
  // True once the probe sleeps in poll: its event loop runs, and only from
  // then on does it act on signals (earlier ones are dropped).
  bool WaitUntilPolling() const;
  // Sends sig once the event loop runs.
  void Signal(int sig) const;
  // Signal(sig) (SIGKILL at once) and waits; the exit status, or -1.
  int Stop(int sig);
  // Waits for the probe to end by itself; exit status or -1.
  int Wait(std::chrono::milliseconds timeout = 60s);
  bool Running() const;
  std::vector<int> Children() const;  // pids of the probe's current children

  bool WaitForLog(const std::string& text) const;  // the whole text, never a prefix
  std::string Log() const { return ReadFile(LogPath()); }  // the plain .log of this run
  std::string Csl() const { return ReadFile(CslPath()); }  // the structured .csl
  std::string LogPath() const { return LogBase() + ".log"; }
  std::string CslPath() const { return LogBase() + ".csl"; }
  std::string PidFilePath() const { return dir_ + "/run/quelmloadprobe.pid"; }

  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  const std::string& dir() const { return dir_; }

  static int FreeTcpPort();
  static std::string ReadFile(const std::string& path);
  static void WriteFile(const std::string& path, const std::string& text);
  // Writes an executable shell script (a fake measuring tool, say).
  static void WriteScript(const std::string& path, const std::string& body);

 private:
  std::string LogBase() const {
    return dir_ + "/logs/quelmloadprobe" + std::to_string(pid_) + "_error";
  }
  std::string dir_;
  std::map<std::string, std::string> props_;
  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = -1;
};

// One request on its own connection to 127.0.0.1:port; the whole reply.
std::string SendRequest(int port, const std::string& request,
                        std::chrono::milliseconds timeout = 10s);

// A shell command's exit status and standard output.
struct Output {
  int status = -1;
  std::string out, err;
};
Output Shell(const std::string& command);

// A program as a child process (quelmloadctl unless told otherwise); its
// standard output and error go to temporary files. Ended by an alarm after 100 s.
class Ctl {
 public:
  explicit Ctl(std::vector<std::string> args);
  ~Ctl();
  Ctl(const Ctl&) = delete;
  Ctl& operator=(const Ctl&) = delete;
  std::string Err() const { return Read(err_); }
  Output Finish();  // waits; status -1 when it did not exit normally

 private:
  static std::string Read(FILE* f);
  FILE* out_;
  FILE* err_;
  pid_t pid_ = -1;
};

Output RunCtl(const std::vector<std::string>& args);

#endif  // QUELM_TESTS_E2E_PROBE_RUNNER_H_
