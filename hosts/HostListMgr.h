#ifndef QUELM_HOSTS_HOSTLISTMGR_H_
#define QUELM_HOSTS_HOSTLISTMGR_H_

#include <map>

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmUniString.h"
#include "hosts/HostTable.h"

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
  // Costs O(log n) unless the smallest sample rate changed since the last
  // call: then every host's cache entries are set again.
  static void setLoadToolParameters();
  // The hourly expiry check.
  static void regularTimeoutCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  // Destroys every host without logging or retuning anything: a test's or a
  // fuzzer's fresh start.
  static void clear();

  static const HostTable& getHosts() { return HostList; }
  // The loop that carries the hosts' send timers.
  static OmEventLoop* getEventLoop() { return eventloop; }

 private:
  // Owned hosts, in insertion order.
  static HostTable HostList;
  static OmEventLoop* eventloop;
  static OmStaticCallback<OmEvent::cbdispatch> regularTimeoutcb;

  // Books a host's wishes in the tallies below, or takes them out again.
  static void countHost(Host* host);
  static void uncountHost(const Host* host);
  static unsigned hostCacheEntries(const Host* host, unsigned rate);
  static void setAllCacheEntries(unsigned rate);

  // Hosts per sample rate (seconds): the smallest rate without a walk.
  static std::map<unsigned, unsigned> rateCounts;
  // Hosts per non-zero cache entries at entriesRate: the largest without a walk.
  static std::map<unsigned, unsigned> entryCounts;
  // The common rate the hosts' cache entries were last set from; 0: none.
  static unsigned entriesRate;
};

#endif  // QUELM_HOSTS_HOSTLISTMGR_H_
