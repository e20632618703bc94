#ifndef QUELM_TOOLS_QUELMLOADCTL_REQUEST_H_
#define QUELM_TOOLS_QUELMLOADCTL_REQUEST_H_

#include <cstddef>
#include <string>

#include "tools/quelmloadctl/Options.h"

namespace quelmctl {

// The probe takes the first read of more than 10 and at most 512 bytes as
// the whole request.
constexpr size_t kMinRequestSize = 11;
constexpr size_t kMaxRequestSize = 512;

// The request text of a get, create, kill or admin command, exactly as a
// load balancer sends it. Throws UsageError when it would not fit in one
// request.
std::string buildRequest(const Options& o);

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_REQUEST_H_
