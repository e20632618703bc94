#ifndef QUELM_HOSTS_HOSTLISTMGR_H_
#define QUELM_HOSTS_HOSTLISTMGR_H_

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmUniString.h"

class Host;
class OmEventLoop;

// The subscribed hosts. Class-wide only: there is one list in the process.
class HostListMgr {
 public:
  static constexpr unsigned CHECK_INTERVAL = 3600;  // seconds between expiry checks

  static void init(OmEventLoop* loop);
  // The new host, or null: duplicate id, unresolvable name, or construction failed.
  static Host* addHost(const OmUniString& name, unsigned port, unsigned sampleRateMs,
                       unsigned windowSize, unsigned replyFrequencyMs, unsigned percentChange,
                       unsigned id, const OmUniString& text, unsigned flags);
  static bool removeHost(unsigned id);
  static void percentChangeCheck(unsigned idle);
  static void setLoadToolParameters();
  // The hourly expiry check.
  static void regularTimeoutCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // Destroys every host without logging or retuning anything: a test's or a
  // fuzzer's fresh start.
  static void clear();

  static const OmIList<Host>& getHosts() { return HostList; }
  // The loop that carries the hosts' send timers.
  static OmEventLoop* getEventLoop() { return eventloop; }

 private:
  // Owned hosts, in insertion order.
  static OmIList<Host> HostList;
  static OmEventLoop* eventloop;
  static OmStaticCallback<OmEvent::cbdispatch> regularTimeoutcb;
};

#endif  // QUELM_HOSTS_HOSTLISTMGR_H_
