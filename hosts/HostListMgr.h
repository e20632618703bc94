#ifndef QUELM_HOSTS_HOSTLISTMGR_H_
#define QUELM_HOSTS_HOSTLISTMGR_H_

// Placeholder until the subscribed-host list exists: the child manager hands
// each finished run's idle average here.
class HostListMgr {
 public:
  static void percentChangeCheck(unsigned idle);
};

#endif  // QUELM_HOSTS_HOSTLISTMGR_H_
