#ifndef QUELM_TOOLS_QUELMLOADCTL_OPTIONS_H_
#define QUELM_TOOLS_QUELMLOADCTL_OPTIONS_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace quelmctl {

// Exit statuses of the client.
constexpr int kExitOk = 0;
constexpr int kExitErrorReply = 1;  // the probe answered with an error
constexpr int kExitNoProbe = 2;     // connection, reply or socket failure
constexpr int kExitUsage = 64;      // bad command line (EX_USAGE)

enum class Command { Help, Version, Get, Create, Kill, Admin, Listen };

// Everything the command line can say; defaults are those of a typical
// load balancer subscription.
struct Options {
  Command command = Command::Help;
  std::string host = "127.0.0.1";
  uint16_t port = 3579;
  unsigned timeoutMs = 5000;
  bool timeoutGiven = false;
  bool pretty = false;
  bool json = false;  // one JSON object per reply or packet

  // create and kill
  uint32_t id = 0;
  std::string subscriberHost;
  uint16_t subscriberPort = 0;
  uint32_t sampleRateMs = 5000;
  uint32_t windowSize = 3;
  uint32_t replyFreqMs = 10000;
  uint32_t percentChange = 10;
  std::vector<std::string> stats;

  // admin: the command port it asks for (the connection's port by default)
  uint16_t adminPort = 0;

  // listen
  uint16_t listenPort = 0;
  uint32_t count = 0;  // 0: until interrupted
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Parses the arguments after the program name; throws UsageError.
Options parseCommandLine(const std::vector<std::string>& args);

const char* usageText();

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_OPTIONS_H_
