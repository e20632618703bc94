#ifndef QUELM_HOSTS_HOSTLISTMGR_H_
#define QUELM_HOSTS_HOSTLISTMGR_H_

#include <cstddef>
#include <list>
#include <map>
#include <memory>

#include "foundation/event/OmCallback.h"
#include "foundation/net/OmResolver.h"
#include "foundation/string/OmUniString.h"
#include "hosts/HostTable.h"

class Host;
class OmEventLoop;
class StateFile;

// The subscribed hosts. Class-wide only: there is one list in the process.
class HostListMgr {
 public:
  static constexpr unsigned CHECK_INTERVAL = 3600;  // seconds between expiry checks

  // Receives the outcome of an add that waited for its name: the host or null.
  using AddHostCallback = OmCallback<Host*>;

  static void init(OmEventLoop* loop);
  // The new host, or null: duplicate id, subscriber limit reached, name
  // unresolvable or not allowed, or construction failed. With done, a name
  // whose look-up runs in the background sets *pending and returns null;
  // done is dispatched with the outcome later. Without done, the look-up
  // waits in place. client (the requester's address) bounds its look-ups.
  static Host* addHost(const OmUniString& name, unsigned port, unsigned sampleRateMs,
                       unsigned windowSize, unsigned replyFrequencyMs, unsigned percentChange,
                       unsigned id, const OmUniString& text, unsigned flags,
                       AddHostCallback* done = nullptr, bool* pending = nullptr,
                       const std::string& client = std::string());
  // done is going away: its add goes on, unheard.
  static void forgetAddHost(AddHostCallback* done);
  static size_t getPendingCount() { return pendingAdds.size(); }
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
  // Destroys every host at exit; look-ups still running are left to end
  // with the process, as threads of the C library may still report them.
  static void freeHosts();

  // Restores the subscriptions the file holds (those not yet expired, with
  // the lifetime they had left), then records every add, kill and expiry in
  // it before the command's reply goes out. Takes the file; null stops the
  // recording. A damaged file is logged and its good lines restored.
  static void restoreState(StateFile* file);

  static const HostTable& getHosts() { return HostList; }
  // The loop that carries the hosts' send timers.
  static OmEventLoop* getEventLoop() { return eventloop; }

 private:
  struct PendingAdd;
  struct Admission;

  // Built from the configuration on first use; init and clear drop it.
  static Admission& admission();
  // Gives up the adds still waiting, unheard, and the rules.
  static void dropAdmission();
  // True, logged once a time the limit is reached, when no host may be added.
  static bool atSubscriberLimit();
  static bool isPending(unsigned id);
  // Ends an add whose address look-up has ended.
  static Host* admit(const PendingAdd& wish, const OmResolver::Answer& answer);
  static void resolved(PendingAdd* wish, const OmResolver::Answer& answer);

  // The state file's share: each records one change, rewriting the file
  // once it has grown to hold more dead lines than live ones.
  static void recordAdd(const Host* host);
  static void recordRemove(unsigned id);
  static void rewriteState();
  static void stateWritten(bool ok);

  static std::list<std::unique_ptr<PendingAdd>> pendingAdds;
  static StateFile* stateFile;  // null: nothing is kept
  static bool stateFailing;     // a write failed; logged once until one succeeds
  // Not freed at exit: like the list, it ends with the process.
  static Admission* admissionRules;
  static bool limitLogged;

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
