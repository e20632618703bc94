#ifndef QUELM_BENCH_FANOUT_H_
#define QUELM_BENCH_FANOUT_H_

#include <sys/types.h>

#include <string>

struct FanoutOptions {
  int port = 0;             // the probe's command port
  pid_t pid = 0;            // the probe, for its CPU time
  int hosts = 100;          // subscriptions to create (ids firstId, firstId + 1, ...)
  int firstId = 1;
  int sockets = 4;          // receiving UDP sockets; hosts are spread over them
  double seconds = 30;      // counting window after the last create
  int replyFreqMs = 10000;
  int warmupMs = -1;        // wait before counting (-1: half a reply period)
  std::string logDir;       // the probe's log folder, to measure its growth
};

struct FanoutResult {
  int created = 0;
  int refused = 0;             // create replies that were not create documents
  double createSeconds = 0;    // time to create them all
  long datagrams = 0;          // received in the window
  long wellFormed = 0;         // of those, complete load packets
  double seconds = 0;
  double probeCpuSeconds = 0;  // the probe's utime + stime over the window
  long long logBytes = 0;      // growth of the log folder over the window
  std::string sample;          // one packet as received
};

// Subscribes `hosts` hosts on loopback UDP ports and counts the load
// packets that arrive.
FanoutResult RunFanout(const FanoutOptions& options);

#endif  // QUELM_BENCH_FANOUT_H_
