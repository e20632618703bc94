#include "ports/AgentCheck.h"

#include <algorithm>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"

std::unique_ptr<StatsPacket> probeAverage() {
  if (myCache == nullptr) return nullptr;
  // The window the probe itself measures over; the cache keeps at least that.
  const uint32_t window = myChildManager != nullptr ? myChildManager->getWindowSize()
                                                     : mySettings->windowSize;
  return myCache->getAverageOfNIdleValues(std::max<uint32_t>(window, 1));
}

unsigned AgentCheck::freeMemoryPercent(const StatsPacket& average) const {
  const uint64_t configured = settings.maxVirtualMemory >> 10;  // MiB, as the average
  if (configured == 0) return 100;
  return static_cast<unsigned>(std::min<uint64_t>(100, uint64_t{average.vmem} * 100 / configured));
}

const AgentCheck* AgentCheck::serving = nullptr;

AgentCheck::~AgentCheck() {
  if (serving == this) serving = nullptr;
}

AgentWeight::Weight AgentCheck::weightFor(const StatsPacket& average) const {
  AgentFigures f;
  f.idle = std::min<unsigned>(average.idle, 100);
  f.memory = freeMemoryPercent(average);
  return AgentWeight(settings).decide(f);
}

bool AgentCheck::weightNow(const StatsPacket* average, const Settings& settings,
                           AgentWeight::Weight& now) {
  if (serving != nullptr && serving->weight.answered()) {
    now = serving->weight.last();
    return true;
  }
  if (average == nullptr) return false;
  now = AgentCheck(settings).weightFor(*average);
  return true;
}

std::string AgentCheck::answerFor(const StatsPacket* average) {
  // An empty line: HAProxy takes it as "no change", where "up" would claim
  // a health the probe cannot know yet.
  if (average == nullptr) return "\n";
  return weight.answer(AgentWeight::figuresNow(*average, freeMemoryPercent(*average), settings));
}

// Answered at accept; whatever the balancer sends is read and dropped.
ReplyListener::Service::Verdict AgentCheck::serve(const OmByteBuffer&, OmByteBuffer& reply) {
  ++probeCounters.agentChecks;
  serving = this;
  const std::string line = answerFor(probeAverage().get());
  reply = OmByteBuffer(line.data(), line.size());
  return Answer;
}
