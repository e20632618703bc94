#ifndef QUELM_BENCH_FANOUT_H_
#define QUELM_BENCH_FANOUT_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "LoadClient.h"

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
  // Afterwards, gets from this many clients for floodSeconds while the
  // packets are counted again (0: no flood).
  int floodConns = 0;
  double floodSeconds = 10;
};

// Packets counted over one window, and what the probe spent meanwhile.
struct PacketCount {
  long datagrams = 0;
  long wellFormed = 0;         // complete load packets
  double seconds = 0;
  double probeCpuSeconds = 0;  // the probe's utime + stime over the window
  double PerSecond() const { return seconds > 0 ? static_cast<double>(datagrams) / seconds : 0; }
};

struct FanoutResult {
  int created = 0;
  int refused = 0;             // create replies that were not create documents
  double createSeconds = 0;    // time to create them all
  std::vector<double> createMs;  // each create's round trip, in order
  PacketCount quiet;           // the counting window without other traffic
  long long logBytes = 0;      // growth of the log folder over that window
  std::string sample;          // one packet as received
  PacketCount flood;           // the window of the get flood
  LoadResult floodLoad;
};

// Loopback UDP sockets standing in for subscribed hosts, and their creates.
class Subscribers {
 public:
  explicit Subscribers(int sockets);
  ~Subscribers();
  Subscribers(const Subscribers&) = delete;
  Subscribers& operator=(const Subscribers&) = delete;

  // Subscribes hosts firstId .. firstId + count - 1, one create after the
  // other, spread over the sockets; records each create's round trip.
  void Create(int port, int firstId, int count, int replyFreqMs, FanoutResult& r);
  // Throws away what has arrived so far.
  void Drain();
  // Counts for `seconds`; `during` (if any) runs meanwhile on another thread
  // and the count ends when it returns or the time is up, whichever is later.
  PacketCount Count(pid_t pid, double seconds, std::string* sample = nullptr,
                    const std::function<void()>& during = nullptr);

 private:
  std::vector<int> fds_;
  std::vector<int> ports_;
  int ep_ = -1;
};

// Subscribes `hosts` hosts on loopback UDP ports and counts the load
// packets that arrive.
FanoutResult RunFanout(const FanoutOptions& options);

// The median of values[from, to) (indices clamped); 0 when empty.
double MedianOf(const std::vector<double>& values, size_t from, size_t to);

#endif  // QUELM_BENCH_FANOUT_H_
