#ifndef QUELM_TOOLS_QUELMLOADCTL_COMMANDCLIENT_H_
#define QUELM_TOOLS_QUELMLOADCTL_COMMANDCLIENT_H_

#include <chrono>
#include <cstdint>
#include <string>

namespace quelmctl {

// One request and its reply on a connection of its own, the way the probe
// expects them: the whole request in one write, then the reply up to its
// end tag or until the probe closes.
class CommandClient {
 public:
  CommandClient(std::string host, uint16_t port, std::chrono::milliseconds timeout);

  // False, with error() set, when there is no connection or no reply in time.
  bool exchange(const std::string& request, std::string& reply);
  const std::string& error() const { return error_; }
  std::string address() const;

 private:
  bool fail(const std::string& what, int err);

  std::string host_;
  uint16_t port_;
  std::chrono::milliseconds timeout_;
  std::string error_;
};

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_COMMANDCLIENT_H_
