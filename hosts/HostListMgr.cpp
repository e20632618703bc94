#include "hosts/HostListMgr.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmAddressRange.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "hosts/StateFile.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"

HostTable HostListMgr::HostList;
OmEventLoop* HostListMgr::eventloop = nullptr;
OmStaticCallback<OmEvent::cbdispatch> HostListMgr::regularTimeoutcb(&HostListMgr::regularTimeoutCB);
std::map<unsigned, unsigned> HostListMgr::rateCounts;
std::map<unsigned, unsigned> HostListMgr::entryCounts;
unsigned HostListMgr::entriesRate = 0;
std::list<std::unique_ptr<HostListMgr::PendingAdd>> HostListMgr::pendingAdds;
HostListMgr::Admission* HostListMgr::admissionRules = nullptr;
bool HostListMgr::limitLogged = false;
StateFile* HostListMgr::stateFile = nullptr;
bool HostListMgr::stateFailing = false;

// A create's wishes while its subscriber's address is looked up.
struct HostListMgr::PendingAdd {
  PendingAdd(const OmUniString& hostName, unsigned hostPort, unsigned rateMs, unsigned window,
             unsigned frequencyMs, unsigned change, unsigned hostId, const OmUniString& hostText,
             unsigned hostFlags)
      : name(hostName), port(hostPort), sampleRateMs(rateMs), windowSize(window),
        replyFrequencyMs(frequencyMs), percentChange(change), id(hostId), text(hostText),
        flags(hostFlags) {}
  void resolvedCB(OmResolver::Callback*, const OmResolver::Answer& answer) {
    HostListMgr::resolved(this, answer);
  }

  OmUniString name;
  unsigned port, sampleRateMs, windowSize, replyFrequencyMs, percentChange, id;
  OmUniString text;
  unsigned flags;
  AddHostCallback* done = nullptr;
  OmResolver::Request* request = nullptr;
  OmSimpleCallback<const OmResolver::Answer&, PendingAdd> resolvedCallback{
      this, &PendingAdd::resolvedCB};
};

// Who may subscribe and how names are looked up, as configured.
struct HostListMgr::Admission {
  Admission(OmEventLoop& loop, const Settings& settings)
      : resolver(loop, settings.resolveTimeout, settings.resolveCache) {
    resolver.SetLimits(settings.resolveLimit, settings.resolvePerClient);
    allowed.Parse(settings.subscriberAllow);  // checked when the file was read
    resolver.AllowIPv6(settings.ipv6 != 0);
  }
  OmResolver resolver;
  OmAddressRangeList allowed;  // empty: any address
};

namespace {

constexpr unsigned kMinCacheEntries = 2;

unsigned roundedRatio(double numerator, unsigned denominator) {
  // The current rounding mode: to nearest, ties to even. A host may ask for
  // a window longer than any count: it gets the longest there is.
  const double ratio = std::nearbyint(numerator / denominator);
  if (ratio >= 4294967295.0) return 4294967295u;
  return static_cast<unsigned>(ratio);
}

StateFile::Entry entryOf(const Host* host) {
  StateFile::Entry e;
  e.id = host->getId();
  e.port = host->getPort();
  e.sampleRate = host->getSampleRate();
  e.windowSize = host->getWindowSize();
  e.replyFrequency = host->getReplyFrequency();
  e.percentChange = host->getPercentChange();
  e.flags = host->getFlags();
  e.expiry = host->getExpiryTime().seconds;
  e.name = host->getName().AsUtf8();
  e.text = host->getText().AsUtf8();
  return e;
}

void countIn(std::map<unsigned, unsigned>& counts, unsigned key) { ++counts[key]; }

void countOut(std::map<unsigned, unsigned>& counts, unsigned key) {
  const auto it = counts.find(key);
  if (it != counts.end() && --it->second == 0) counts.erase(it);
}

}  // namespace

void HostListMgr::init(OmEventLoop* loop) {
  dropAdmission();
  eventloop = loop;
  eventloop->AddTimeoutEvent(OmTimeVal::now().PlusSeconds(CHECK_INTERVAL), &regularTimeoutcb);
}

void HostListMgr::regularTimeoutCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;

  const OmTimeVal now = OmTimeVal::now();
  bool removed = false;
  for (Host* host : HostList.Snapshot()) {
    if (!host->isExpired(now)) continue;
    LogHostTimedOut(host->getName(), host->getId());
    HostList.Remove(host->getId());
    uncountHost(host);
    recordRemove(host->getId());
    delete host;
    removed = true;
  }
  LogHostListLen(OmUniString("Host timeout check"), static_cast<unsigned>(HostList.Length()));
  if (removed) setLoadToolParameters();

  eventloop->AddTimeoutEvent(OmTimeVal::now().PlusSeconds(CHECK_INTERVAL), &regularTimeoutcb);
}

Host* HostListMgr::addHost(const OmUniString& name, unsigned port, unsigned sampleRateMs,
                           unsigned windowSize, unsigned replyFrequencyMs, unsigned percentChange,
                           unsigned id, const OmUniString& text, unsigned flags,
                           AddHostCallback* done, bool* pending, const std::string& client) {
  if (pending != nullptr) *pending = false;
  // A subscription is never renewed, nor asked for twice at once.
  if (HostList.Find(id) != nullptr || isPending(id)) return nullptr;
  if (atSubscriberLimit()) return nullptr;

  auto wish = std::make_unique<PendingAdd>(name, port, sampleRateMs, windowSize, replyFrequencyMs,
                                           percentChange, id, text, flags);
  OmResolver::Answer answer;
  if (admission().resolver.Resolve(name.AsUtf8(), answer,
                                   done != nullptr ? &wish->resolvedCallback : nullptr,
                                   &wish->request, client)) {
    if (answer.limited != 0) {
      LogLookUpLimit(name, OmUniString::FromUtf8(client), static_cast<unsigned>(answer.limited));
      return nullptr;
    }
    return admit(*wish, answer);
  }
  wish->done = done;
  pendingAdds.push_back(std::move(wish));
  if (pending != nullptr) *pending = true;
  return nullptr;
}

Host* HostListMgr::admit(const PendingAdd& wish, const OmResolver::Answer& answer) {
  if (!answer.found) {
    LogAddressLookupFail(wish.name, static_cast<unsigned>(answer.failure));
    return nullptr;
  }
  const OmInetAddr& address = answer.address;
  const OmAddressRangeList& allowed = admission().allowed;
  if (!allowed.IsEmpty() && !allowed.Contains(address)) {
    LogSubscriberRefused(wish.name, address.AsString(false));
    return nullptr;
  }

  Host* host = nullptr;
  try {
    host = new Host(wish.name, wish.port, wish.sampleRateMs, wish.windowSize,
                    wish.replyFrequencyMs, wish.percentChange, wish.id, wish.text, wish.flags,
                    answer.address);
  } catch (...) {
    return nullptr;
  }
  if (!host->isValid()) {
    delete host;
    return nullptr;
  }

  HostList.Append(host);
  countHost(host);
  recordAdd(host);
  LogHostListLen(OmUniString("Add Host"), static_cast<unsigned>(HostList.Length()));
  setLoadToolParameters();
  return host;
}

void HostListMgr::resolved(PendingAdd* wish, const OmResolver::Answer& answer) {
  const auto it = std::find_if(pendingAdds.begin(), pendingAdds.end(),
                               [wish](const auto& p) { return p.get() == wish; });
  if (it == pendingAdds.end()) return;
  // Freed on return, with the callback now dispatching this call: nothing
  // of it is used after that.
  const std::unique_ptr<PendingAdd> owned = std::move(*it);
  pendingAdds.erase(it);
  Host* host = admit(*owned, answer);
  if (owned->done != nullptr) owned->done->Dispatch(host);
}

void HostListMgr::forgetAddHost(AddHostCallback* done) {
  for (const auto& wish : pendingAdds) {
    if (wish->done == done) wish->done = nullptr;
  }
}

bool HostListMgr::isPending(unsigned id) {
  return std::any_of(pendingAdds.begin(), pendingAdds.end(),
                     [id](const auto& wish) { return wish->id == id; });
}

bool HostListMgr::atSubscriberLimit() {
  const unsigned limit = mySettings->maxSubscribers;
  if (limit == 0 || HostList.Length() + pendingAdds.size() < limit) {
    limitLogged = false;
    return false;
  }
  if (!limitLogged) LogSubscriberLimit(limit);
  limitLogged = true;
  return true;
}

void HostListMgr::dropAdmission() {
  for (const auto& wish : pendingAdds) admissionRules->resolver.Cancel(wish->request);
  pendingAdds.clear();
  delete std::exchange(admissionRules, nullptr);
  limitLogged = false;
}

HostListMgr::Admission& HostListMgr::admission() {
  if (admissionRules == nullptr) admissionRules = new Admission(*eventloop, *mySettings);
  return *admissionRules;
}

bool HostListMgr::removeHost(unsigned id) {
  // Ids are unique in the list: at most one host goes.
  Host* host = HostList.Remove(id);
  const bool removed = host != nullptr;
  if (removed) {
    uncountHost(host);
    recordRemove(id);
    delete host;
  }
  LogHostListLen(OmUniString("Remove Host"), static_cast<unsigned>(HostList.Length()));
  if (removed) setLoadToolParameters();
  return removed;
}

void HostListMgr::percentChangeCheck(unsigned idle) {
  for (Host* host : HostList.Snapshot()) host->percentChange(idle);
}

unsigned HostListMgr::hostCacheEntries(const Host* host, unsigned rate) {
  return roundedRatio(static_cast<double>(host->getSampleRate()) * host->getWindowSize(), rate);
}

void HostListMgr::countHost(Host* host) {
  countIn(rateCounts, host->getSampleRate());
  // Sets the host's entries at the rate in force; should the host change
  // that rate, setLoadToolParameters sets every host's entries again.
  if (entriesRate == 0) return;
  const unsigned entries = hostCacheEntries(host, entriesRate);
  if (entries == 0) {
    host->setCacheEntries(kMinCacheEntries);  // not a candidate for the largest
  } else {
    countIn(entryCounts, entries);
    host->setCacheEntries(entries);
  }
}

void HostListMgr::uncountHost(const Host* host) {
  countOut(rateCounts, host->getSampleRate());
  if (entriesRate == 0) return;
  const unsigned entries = hostCacheEntries(host, entriesRate);
  if (entries != 0) countOut(entryCounts, entries);
}

void HostListMgr::setAllCacheEntries(unsigned rate) {
  entryCounts.clear();
  for (Host* host : HostList) {
    unsigned entries = hostCacheEntries(host, rate);
    if (entries == 0) {
      entries = kMinCacheEntries;  // not a candidate for the largest
    } else {
      countIn(entryCounts, entries);
    }
    host->setCacheEntries(entries);
  }
  entriesRate = rate;
}

void HostListMgr::setLoadToolParameters() {
  unsigned rate = mySettings->sampleRate;
  const double span = static_cast<double>(rate) * mySettings->windowSize;
  if (!rateCounts.empty()) rate = std::min(rate, rateCounts.begin()->first);
  if (rate == 0) return;  // the sample-rate rule keeps every rate at 5 or more

  const unsigned window = roundedRatio(span, rate);
  myChildManager->setSampleRateAndWindowSize(rate, window);

  if (HostList.IsEmpty()) {
    entryCounts.clear();
    entriesRate = 0;
    myCache->setCacheSize(kMinCacheEntries);
    return;
  }

  // At an unchanged rate every host's entries stand: a host's rate and
  // window never change, and countHost set a new host's.
  if (rate != entriesRate) setAllCacheEntries(rate);
  unsigned largest = kMinCacheEntries;
  if (!entryCounts.empty()) largest = std::max(largest, entryCounts.rbegin()->first);
  myCache->setCacheSize(largest);
}

void HostListMgr::clear() {
  dropAdmission();
  freeHosts();
}

void HostListMgr::freeHosts() {
  for (Host* host : HostList) delete host;
  HostList.Clear();
  rateCounts.clear();
  entryCounts.clear();
  entriesRate = 0;
}

void HostListMgr::restoreState(StateFile* file) {
  delete std::exchange(stateFile, nullptr);
  if (file == nullptr) return;
  const OmUniString path = OmUniString::FromUtf8(file->path());
  StateFile::Replay replay;
  if (!file->load(replay)) {
    LogStateFileUnreadable(path, OmUniString::FromUtf8(file->error()));
  } else if (replay.badLines != 0) {
    LogStateFileDamaged(path, replay.firstBadLine, replay.badLines);
  }

  const uint32_t now = OmTimeVal::now().seconds;
  unsigned restored = 0;
  unsigned expired = 0;
  constexpr unsigned kMaxSeconds = UINT32_MAX / 1000;  // the create's milliseconds
  for (const StateFile::Entry& e : replay.entries) {
    if (e.expiry <= now) {
      ++expired;
      continue;
    }
    // Looked up again, and admitted by today's rules, as at a create.
    Host* host = addHost(OmUniString::FromUtf8(e.name), e.port,
                         std::min(e.sampleRate, kMaxSeconds) * 1000, e.windowSize,
                         std::min(e.replyFrequency, kMaxSeconds) * 1000, e.percentChange, e.id,
                         OmUniString::FromUtf8(e.text), e.flags);
    if (host == nullptr) continue;
    host->setExpiryTime(OmTimeVal(e.expiry, 0));
    ++restored;
  }
  if (!replay.entries.empty()) {
    LogStateRestored(restored, path, expired, static_cast<unsigned>(replay.entries.size()) - restored - expired);
  }
  stateFile = file;
  stateFailing = false;
  rewriteState();
}

void HostListMgr::recordAdd(const Host* host) {
  if (stateFile == nullptr) return;
  stateWritten(stateFile->recordAdd(entryOf(host)));
}

void HostListMgr::recordRemove(unsigned id) {
  if (stateFile == nullptr) return;
  stateWritten(stateFile->recordRemove(id));
}

void HostListMgr::stateWritten(bool ok) {
  if (!ok) {
    if (!stateFailing) {
      LogStateFileWriteFailed(OmUniString::FromUtf8(stateFile->path()),
                              OmUniString::FromUtf8(stateFile->error()));
    }
    stateFailing = true;
    return;
  }
  stateFailing = false;
  // The host being removed is already out of the list.
  if (stateFile->wantsRewrite(HostList.Length())) rewriteState();
}

void HostListMgr::rewriteState() {
  std::vector<StateFile::Entry> live;
  live.reserve(HostList.Length());
  for (Host* host : HostList) {
    live.push_back(entryOf(host));
  }
  if (stateFile->rewrite(live)) {
    stateFailing = false;
  } else if (!stateFailing) {
    stateFailing = true;
    LogStateFileWriteFailed(OmUniString::FromUtf8(stateFile->path()),
                            OmUniString::FromUtf8(stateFile->error()));
  }
}
