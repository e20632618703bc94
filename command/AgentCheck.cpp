#include "command/AgentCheck.h"

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

AgentCheck::Weight AgentCheck::weightFor(const StatsPacket& average) const {
  const unsigned idle = std::min<unsigned>(average.idle, 100);
  const unsigned memory = freeMemoryPercent(average);
  const bool drain = idle < settings.agentCheckDrainIdle || memory < settings.agentCheckDrainMemory;
  const unsigned share = std::min<unsigned>(settings.agentCheckMemoryWeight, 100);
  const unsigned weight = ((100 - share) * idle + share * memory + 50) / 100;
  return {drain, std::clamp(weight, 1u, 100u)};
}

std::string AgentCheck::answerFor(const StatsPacket* average) {
  // An empty line: HAProxy takes it as "no change", where "up" would claim
  // a health the probe cannot know yet.
  if (average == nullptr) return "\n";
  const Weight weight = weightFor(*average);
  if (weight.drain != draining) {
    draining = weight.drain;
    const unsigned idle = std::min<unsigned>(average->idle, 100);
    const unsigned memory = freeMemoryPercent(*average);
    draining ? LogAgentCheckDrain(idle, memory) : LogAgentCheckReady(idle, memory);
  }
  if (weight.drain) return "drain\n";

  const std::string percent = std::to_string(weight.percent) + "%\n";
  // Only a probe that may drain says ready: otherwise the server's
  // administrative state stays the operator's alone.
  const bool mayDrain = settings.agentCheckDrainIdle != 0 || settings.agentCheckDrainMemory != 0;
  return mayDrain ? "ready " + percent : percent;
}

// Answered at accept; whatever the balancer sends is read and dropped.
ReplyListener::Service::Verdict AgentCheck::serve(const OmByteBuffer&, OmByteBuffer& reply) {
  ++probeCounters.agentChecks;
  const std::string line = answerFor(probeAverage().get());
  reply = OmByteBuffer(line.data(), line.size());
  return Answer;
}
