#include "hosts/HostListMgr.h"

#include <algorithm>
#include <cmath>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"

OmIList<Host> HostListMgr::HostList;
OmEventLoop* HostListMgr::eventloop = nullptr;
OmStaticCallback<OmEvent::cbdispatch> HostListMgr::regularTimeoutcb(&HostListMgr::regularTimeoutCB);

namespace {

constexpr unsigned kMinCacheEntries = 2;

unsigned roundedRatio(double numerator, unsigned denominator) {
  // The current rounding mode: to nearest, ties to even. A host may ask for
  // a window longer than any count: it gets the longest there is.
  const double ratio = std::nearbyint(numerator / denominator);
  if (ratio >= 4294967295.0) return 4294967295u;
  return static_cast<unsigned>(ratio);
}

}  // namespace

void HostListMgr::init(OmEventLoop* loop) {
  eventloop = loop;
  eventloop->AddTimeoutEvent(OmTimeVal::now().PlusSeconds(CHECK_INTERVAL), &regularTimeoutcb);
}

void HostListMgr::regularTimeoutCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;

  const OmTimeVal now = OmTimeVal::now();
  bool removed = false;
  for (size_t i = 0; i < HostList.Length();) {
    Host* host = HostList[i];
    if (!host->isExpired(now)) {
      ++i;
      continue;
    }
    LogHostTimedOut(host->getName(), host->getId());
    HostList.RemoveAt(i);
    delete host;
    removed = true;
  }
  LogHostListLen(OmUniString("Host timeout check"), static_cast<unsigned>(HostList.Length()));
  if (removed) setLoadToolParameters();

  eventloop->AddTimeoutEvent(OmTimeVal::now().PlusSeconds(CHECK_INTERVAL), &regularTimeoutcb);
}

Host* HostListMgr::addHost(const OmUniString& name, unsigned port, unsigned sampleRateMs,
                           unsigned windowSize, unsigned replyFrequencyMs, unsigned percentChange,
                           unsigned id, const OmUniString& text, unsigned flags) {
  for (const Host* existing : HostList) {
    if (existing->getId() == id) return nullptr;  // a subscription is never renewed
  }

  Host* host = nullptr;
  try {
    host = new Host(name, port, sampleRateMs, windowSize, replyFrequencyMs, percentChange, id,
                    text, flags);
  } catch (...) {
    return nullptr;
  }
  if (!host->isValid()) {
    delete host;
    return nullptr;
  }

  HostList.Append(host);
  LogHostListLen(OmUniString("Add Host"), static_cast<unsigned>(HostList.Length()));
  setLoadToolParameters();
  return host;
}

bool HostListMgr::removeHost(unsigned id) {
  bool removed = false;
  for (size_t i = 0; i < HostList.Length();) {
    Host* host = HostList[i];
    if (host->getId() != id) {
      ++i;
      continue;
    }
    HostList.RemoveAt(i);
    delete host;
    removed = true;
    i = 0;
  }
  LogHostListLen(OmUniString("Remove Host"), static_cast<unsigned>(HostList.Length()));
  if (removed) setLoadToolParameters();
  return removed;
}

void HostListMgr::percentChangeCheck(unsigned idle) {
  for (Host* host : HostList.Snapshot()) host->percentChange(idle);
}

void HostListMgr::setLoadToolParameters() {
  unsigned rate = mySettings->sampleRate;
  const double span = static_cast<double>(rate) * mySettings->windowSize;
  for (const Host* host : HostList) rate = std::min(rate, host->getSampleRate());
  if (rate == 0) return;  // the sample-rate rule keeps every rate at 5 or more

  const unsigned window = roundedRatio(span, rate);
  myChildManager->setSampleRateAndWindowSize(rate, window);

  if (HostList.IsEmpty()) {
    myCache->setCacheSize(kMinCacheEntries);
    return;
  }

  unsigned largest = kMinCacheEntries;
  for (Host* host : HostList) {
    unsigned entries =
        roundedRatio(static_cast<double>(host->getSampleRate()) * host->getWindowSize(), rate);
    if (entries == 0) {
      entries = kMinCacheEntries;
    } else {
      largest = std::max(largest, entries);
    }
    host->setCacheEntries(entries);
  }
  myCache->setCacheSize(largest);
}

void HostListMgr::clear() {
  for (Host* host : HostList.Snapshot()) delete host;
  HostList.Clear();
}
