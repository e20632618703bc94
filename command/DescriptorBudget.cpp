#include "command/DescriptorBudget.h"

#include <sys/resource.h>

#include <algorithm>
#include <numeric>

#include "command/ConnectionServer.h"

void DescriptorBudget::join(ConnectionServer& server, unsigned maxConnections, unsigned perConnection) {
  members_.push_back({&server, {maxConnections, std::max(perConnection, 1u)}});
  shareOut();
}

void DescriptorBudget::leave(ConnectionServer& server) {
  std::erase_if(members_, [&](const Member& m) { return m.server == &server; });
}

// Counted now, with every member's listening socket open: what the
// connections may use is what the limit leaves beyond the descriptors open
// besides them (tool pipe, logs, sockets) and the reserve.
void DescriptorBudget::shareOut() {
  rlimit limit{};
  const long open = ConnectionServer::openDescriptors();
  std::vector<Need> needs;
  long held = 0;
  for (const Member& m : members_) {
    needs.push_back(m.need);
    held += static_cast<long>(m.server->openConnections() * m.need.perConnection);
  }
  std::vector<unsigned> caps;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || open < 0) {
    for (const Need& n : needs) caps.push_back(n.maxConnections);
  } else {
    const long room = static_cast<long>(std::min<rlim_t>(limit.rlim_cur, 1u << 30)) - open + held -
                      static_cast<long>(reserve_);
    caps = shares(room, needs);
  }
  for (size_t i = 0; i < members_.size(); ++i) members_[i].server->setCap(caps[i]);
}

// Ports needing least are served first: one that needs less than an equal
// share of what is left takes what it needs, the rest split the remainder.
// Every port keeps at least one connection.
std::vector<unsigned> DescriptorBudget::shares(long room, const std::vector<Need>& needs) {
  auto need = [&](size_t i) {
    const Need& n = needs[i];
    return n.maxConnections == 0 ? 1L << 40 : static_cast<long>(n.maxConnections) * n.perConnection;
  };
  std::vector<size_t> order(needs.size());
  std::iota(order.begin(), order.end(), 0);
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return need(a) < need(b); });
  std::vector<unsigned> caps(needs.size());
  long left = std::max(room, 0L);
  for (size_t k = 0; k < order.size(); ++k) {
    const size_t i = order[k];
    const long given = std::min(need(i), left / static_cast<long>(order.size() - k));
    left -= given;
    caps[i] = static_cast<unsigned>(std::max(given / static_cast<long>(needs[i].perConnection), 1L));
  }
  return caps;
}
