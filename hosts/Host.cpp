#include "hosts/Host.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmResolver.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/StatsPacket.h"

namespace {

// |a - b| with the difference taken as a signed 32-bit value.
int64_t signedDistance(uint32_t a, uint32_t b) {
  return std::llabs(static_cast<int32_t>(a - b));
}

}  // namespace

Host::Host(const OmUniString& hostName, unsigned hostPort, unsigned sampleRateMs,
           unsigned windowSz, unsigned replyFrequencyMs, unsigned threshold, unsigned hostId,
           const OmUniString& hostText, unsigned hostFlags, std::nullptr_t)
    : name(hostName),
      port(hostPort),
      sampleRate(sampleRateMs / 1000),
      windowSize(windowSz),
      replyFrequency(replyFrequencyMs / 1000),
      percentChangeThreshold(threshold),
      id(hostId),
      text(hostText),
      flags(hostFlags),
      sendResultsCallback(this, &Host::sendResultsCB) {
  Settings::applySampleRateRule(sampleRate, windowSize);
  if (replyFrequency < MIN_REPLY_FREQUENCY) replyFrequency = MIN_REPLY_FREQUENCY;
  const OmTimeVal now = OmTimeVal::now();
  lastSendTime = now;
  expiryTime = now;
}

Host::Host(const OmUniString& hostName, unsigned hostPort, unsigned sampleRateMs,
           unsigned windowSz, unsigned replyFrequencyMs, unsigned threshold, unsigned hostId,
           const OmUniString& hostText, unsigned hostFlags, const OmInetAddr& resolved)
    : Host(hostName, hostPort, sampleRateMs, windowSz, replyFrequencyMs, threshold, hostId,
           hostText, hostFlags, nullptr) {
  start(resolved);
}

Host::Host(const OmUniString& hostName, unsigned hostPort, unsigned sampleRateMs,
           unsigned windowSz, unsigned replyFrequencyMs, unsigned threshold, unsigned hostId,
           const OmUniString& hostText, unsigned hostFlags)
    : Host(hostName, hostPort, sampleRateMs, windowSz, replyFrequencyMs, threshold, hostId,
           hostText, hostFlags, nullptr) {
  // Numeric addresses resolve here as well as names.
  const OmResolver::Answer answer = OmResolver::LookUpNow(name.AsUtf8(), mySettings->ipv6 != 0);
  if (!answer.found) {
    LogAddressLookupFail(name, static_cast<unsigned>(answer.failure));
    return;
  }
  start(answer.address);
}

void Host::start(const OmInetAddr& resolved) {
  const OmTimeVal now = OmTimeVal::now();
  lastSendTime = now;
  address = resolved;
  address.Port(port);
  sendTimer.emplace(*HostListMgr::getEventLoop(), &sendResultsCallback);
  expiryTime = now.PlusSeconds(mySettings->hostLifeTime);
  armTimer(now.PlusSeconds(replyFrequency));
  valid = sendTimer->Armed();
}

// The send timer, if any, is withdrawn with the host.
Host::~Host() = default;

void Host::armTimer(const OmTimeVal& when) {
  // Thousands of subscribers mean thousands of timers a reply period: those
  // due together are served in one turn of the loop, in their usual order.
  sendTimer->ArmBatched(when);
}

bool Host::send(StatsPacket* stats) {
  // On failure the last values stay as they were.
  return myResponder->sendLoadPacket(0, text, id, stats, flags, address, name, this) ==
         OmStatus::Success;
}

void Host::packetSent(const StatsPacket& stats) {
  lastIdle = stats.idle;
  lastVmem = stats.vmem;
  lastPmem = stats.pmem;
  lastBogo = static_cast<unsigned>(myBogomips->getBogomips());
  lastSendTime = OmTimeVal::now();
  ++sends;
}

int Host::sendLoad(StatsPacket* stats) {
  return send(stats) ? OmStatus::Success : OmStatus::Failure;
}

void Host::sendResultsCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;

  const std::unique_ptr<StatsPacket> average = myCache->getAverageOfNIdleValues(cacheEntries);
  if (average == nullptr) {
    LogCacheEmpty(name);
  } else {
    send(average.get());
  }

  armTimer(OmTimeVal::now().PlusSeconds(replyFrequency));
}

void Host::percentChange(unsigned idle) {
  const std::unique_ptr<StatsPacket> average = myCache->getAverageOfNIdleValues(cacheEntries);
  if (average == nullptr) {
    LogCacheEmpty(name);
    return;
  }

  bool fire = false;
  if (flags & CPU) {
    fire = signedDistance(lastIdle, idle) >= percentChangeThreshold &&
           signedDistance(lastIdle, average->idle) >= percentChangeThreshold;
  }
  if (!fire && (flags & VMEM)) {
    // MiB against a maximum in KiB: the scale of the test is deliberate.
    const uint32_t maxVirtual = mySettings->maxVirtualMemory;
    if (maxVirtual != 0) {
      const int64_t p = signedDistance(lastVmem, average->vmem) * 100 / maxVirtual;
      fire = p >= percentChangeThreshold;
    }
  }
  if (fire) send(average.get());
}

bool Host::isExpired(const OmTimeVal& now) const { return expiryTime.Time() <= now.Time(); }
