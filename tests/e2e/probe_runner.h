#ifndef QUELM_TESTS_E2E_PROBE_RUNNER_H_
#define QUELM_TESTS_E2E_PROBE_RUNNER_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

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
  void WriteConfig();
  // Soft and hard open-files limit the probe starts with (0: inherited).
  void SetOpenFileLimit(unsigned long limit) { fileLimit_ = limit; }
  // Starts the probe with the configuration folder (and extra arguments).
  void Start(const std::vector<std::string>& extraArgs = {});
  // Starts the probe with exactly these arguments.
  void StartWithArgs(const std::vector<std::string>& args);
  bool WaitForPidFile(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // Waits until the probe sleeps in poll, i.e. its event loop runs.
  bool WaitUntilPolling(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // Pids of the probe's current children.
  std::vector<int> Children() const;
  bool WaitForLog(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Sends sig and waits for the probe; its exit status, or -1 on timeout.
  int Stop(int sig, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Waits for the probe to end by itself; exit status or -1.
  int Wait(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  bool Running() const;

  std::string Log() const;  // the plain .log file of this run
  std::string Csl() const;  // the structured .csl file of this run
  std::string LogPath() const;
  std::string CslPath() const;
  std::string PidFilePath() const { return pidDir_ + "/quelmloadprobe.pid"; }

  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  const std::string& dir() const { return dir_; }
  const std::string& logDir() const { return logDir_; }

  static int FreeTcpPort();
  static std::string ReadFile(const std::string& path);
  static void WriteFile(const std::string& path, const std::string& text);
  // Writes an executable shell script (a fake measuring tool, say).
  static void WriteScript(const std::string& path, const std::string& body);

 private:
  std::string dir_, logDir_, pidDir_;
  std::map<std::string, std::string> props_;
  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = -1;
  unsigned long fileLimit_ = 0;
};

// One request on its own connection to 127.0.0.1:port; the whole reply.
std::string SendRequest(int port, const std::string& request,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10));

#endif  // QUELM_TESTS_E2E_PROBE_RUNNER_H_
