#ifndef QUELM_AGENT_COUNTERS_H_
#define QUELM_AGENT_COUNTERS_H_

#include <cstdint>

// Running totals of what the probe has done, for the metrics page. Each is
// counted where its event happens; nothing in the probe reads them back.
struct ProbeCounters {
  // Command types as the command port tells them apart.
  enum Command { Create, Kill, Admin, Get, Unknown, CommandTypes };
  uint64_t loadPacketsSent = 0;
  uint64_t loadPacketsFailed = 0;
  uint64_t commands[CommandTypes] = {};
  uint64_t commandBadRequests = 0;  // command port requests of a wrong size
  uint64_t metricsBadRequests = 0;  // metrics port requests that are not HTTP
  uint64_t toolRestarts = 0;
  uint64_t agentChecks = 0;  // answers given on the agent check port
};

inline ProbeCounters probeCounters;

#endif  // QUELM_AGENT_COUNTERS_H_
