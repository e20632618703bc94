#ifndef QUELM_PORTS_AGENTCHECK_H_
#define QUELM_PORTS_AGENTCHECK_H_

#include <memory>
#include <string>

#include "measure/StatsPacket.h"
#include "ports/AgentWeight.h"
#include "ports/ReplyListener.h"

struct Settings;

// The probe's load as its own ports report it: the cache's average over the
// probe's window (memory in MiB); null while the cache is empty.
std::unique_ptr<StatsPacket> probeAverage();

// The answer to HAProxy's agent check: one line, at once, whatever the
// balancer sends. The line is the server's weight as a percentage of its
// configured weight, from average idle processor time and, as far as
// configured, free virtual memory; "drain" while the figures are below the
// drain thresholds, and "ready" with the weight whenever draining is
// configured and they are not, so that a drained server comes back.
class AgentCheck : public ReplyListener::Service {
 public:
  explicit AgentCheck(const Settings& settings) : settings(settings), weight(settings) {}
  ~AgentCheck() override;

  Verdict serve(const OmByteBuffer& received, OmByteBuffer& reply) override;

  // What the cache's figures alone say, without noting anything.
  AgentWeight::Weight weightFor(const StatsPacket& average) const;
  // For the metrics page: the last answer of the agent check that serves
  // the port, or, before it has answered, what the figures say (false while
  // nothing is measured).
  static bool weightNow(const StatsPacket* average, const Settings& settings,
                        AgentWeight::Weight& now);
  // The line for these figures (null: nothing measured yet, which leaves the
  // server as the balancer has it). Notes a change between drain and ready.
  std::string answerFor(const StatsPacket* average);
  // Free virtual memory as a percentage of the configured amount, at most 100.
  unsigned freeMemoryPercent(const StatsPacket& average) const;

 private:
  const Settings& settings;
  AgentWeight weight;  // the drain state and the last weight
  static const AgentCheck* serving;  // the one that answered last
};

#endif  // QUELM_PORTS_AGENTCHECK_H_
