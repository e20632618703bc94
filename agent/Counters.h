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
  // Every start of the measuring tool, and the runs that ended badly by
  // why: killed for a stall, a start that failed (fork, or the program
  // could not be run), output the filter could not read or that outgrew the
  // buffer limit, an end before the first sample interval was over. A run
  // the vmstat filter ends after its one sample is a healthy end.
  enum ToolEnd { Stalled, StartFailed, FilterFailed, EndedEarly, ToolEnds };
  uint64_t toolRuns = 0;
  uint64_t toolBadEnds[ToolEnds] = {};
  uint64_t agentChecks = 0;  // answers given on the agent check port
};

inline ProbeCounters probeCounters;

#endif  // QUELM_AGENT_COUNTERS_H_
