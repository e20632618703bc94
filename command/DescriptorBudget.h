#ifndef QUELM_COMMAND_DESCRIPTORBUDGET_H_
#define QUELM_COMMAND_DESCRIPTORBUDGET_H_

#include <vector>

class ConnectionServer;

// The descriptors all the probe's ports may give their connections, out of
// one count for the process: the open-file limit, less what is open besides
// the connections, less a reserve never given out, so that the measuring
// tool can be restarted, the logs reopened, the state file rewritten and
// names looked up whatever the clients hold. Each port's cap is an equal
// share of the count (what a port's own cap leaves of its share goes to
// the others), so no port's clients can take another port's descriptors.
class DescriptorBudget {
 public:
  explicit DescriptorBudget(unsigned reserve) : reserve_(reserve) {}
  DescriptorBudget(const DescriptorBudget&) = delete;
  DescriptorBudget& operator=(const DescriptorBudget&) = delete;

  // A port whose listening socket is open, with its own cap (0: none) and
  // the descriptors each of its connections holds: every port's cap is
  // shared out again.
  void join(ConnectionServer& server, unsigned maxConnections, unsigned perConnection);
  // The port's share is not given to the others: ports leave when the
  // probe ends.
  void leave(ConnectionServer& server);

  // Each port's cap, in the order given, when room descriptors are shared
  // among ports of these own caps and descriptors per connection.
  struct Need {
    unsigned maxConnections, perConnection;
  };
  static std::vector<unsigned> shares(long room, const std::vector<Need>& needs);

 private:
  void shareOut();

  struct Member {
    ConnectionServer* server;
    Need need;
  };
  unsigned reserve_;
  std::vector<Member> members_;
};

#endif  // QUELM_COMMAND_DESCRIPTORBUDGET_H_
