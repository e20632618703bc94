#ifndef QUELM_COMMAND_AGENTWEIGHT_H_
#define QUELM_COMMAND_AGENTWEIGHT_H_

#include <string>

#include "measure/StatsPacket.h"

struct Settings;

// What one agent-check answer is made of, each in percent.
struct AgentFigures {
  unsigned idle = 100;
  unsigned memory = 100;       // free virtual memory of the configured amount
  bool pressureKnown = false;  // the scope has processor pressure figures
  unsigned cpuPressure = 0;    // "some" over the last 10 s
};

// Turns figures into the agent check's line and keeps it steady: drain
// below the drain thresholds (idle, memory, processor pressure); once
// drained, ready only when every figure is past its threshold by the ready
// margin; the weight falls at once but rises by at most the maximum rise per
// answer. At their defaults (no pressure share or drain, no margin, no
// limit) the line is the weight the figures give, answer by answer.
class AgentWeight {
 public:
  explicit AgentWeight(const Settings& settings) : settings(settings) {}

  // An answer's content: drain, or the weight in percent (1 to 100).
  struct Weight {
    bool drain;
    unsigned percent;
  };
  // What the next answer would be for these figures, noting nothing.
  Weight decide(const AgentFigures& figures) const;
  // The answer's line; notes the drain state (logged when it changes) and
  // the weight, which the next answer rises from.
  std::string answer(const AgentFigures& figures);
  // The last answer, once there is one.
  bool answered() const { return lastWeight >= 0; }
  Weight last() const { return {draining, draining ? 0u : static_cast<unsigned>(lastWeight)}; }

  // The figures for an answer now: idle from the cache's average, or, with
  // an in-process load source, over the time since the previous check; the
  // pressure of the probe's scope when a pressure key asks for it.
  static AgentFigures figuresNow(const StatsPacket& average, unsigned memoryPercent,
                                 const Settings& settings);

 private:
  bool shouldDrain(const AgentFigures& f, unsigned margin) const;

  const Settings& settings;
  bool draining = false;
  int lastWeight = -1;  // -1: no answer with a weight yet
};

#endif  // QUELM_COMMAND_AGENTWEIGHT_H_
