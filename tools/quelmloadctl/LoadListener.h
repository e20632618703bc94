#ifndef QUELM_TOOLS_QUELMLOADCTL_LOADLISTENER_H_
#define QUELM_TOOLS_QUELMLOADCTL_LOADLISTENER_H_

#include <cstdint>
#include <string>

#include "tools/quelmloadctl/Socket.h"

namespace quelmctl {

// A UDP socket on all local addresses of both families that receives load packets.
class LoadListener {
 public:
  enum class Result { Packet, Timeout, Failed };

  // Binds at once; port 0 takes any free port. Check ok().
  explicit LoadListener(uint16_t port);

  bool ok() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  uint16_t port() const { return port_; }

  // Waits for the next datagram until the deadline (forever when null).
  Result receive(std::string& packet, const Clock::time_point* deadline);

 private:
  Socket sock_;
  uint16_t port_;
  std::string error_;
};

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_LOADLISTENER_H_
