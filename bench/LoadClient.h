#ifndef QUELM_BENCH_LOADCLIENT_H_
#define QUELM_BENCH_LOADCLIENT_H_

#include <cstdint>
#include <string>
#include <vector>

// How a client connection ends.
enum class CloseMode {
  AfterReply,      // read until the end tag, then close
  AfterSend,       // send the request and close at once (FIN)
  ResetAfterSend,  // send the request and reset the connection (RST)
  // Send the request, shut down the sending side (as `socat` does at the end
  // of its input), then reset the connection once the first reply bytes
  // have arrived: a client that gives up in the middle of a reply.
  HalfCloseThenReset,
};

struct LoadOptions {
  int port = 0;
  std::string request;
  std::string endTag = "</znalbreply>";  // a round trip ends when this has arrived
  int concurrency = 1;                    // connection slots kept busy
  double seconds = 0;                     // stop starting new ones after this (0: no limit)
  long total = 0;                         // connections to start at most (0: no limit)
  int timeoutMs = 5000;                   // per connection, connect to end tag
  CloseMode close = CloseMode::AfterReply;
};

struct LoadResult {
  long started = 0;
  long ok = 0;         // complete replies, or requests sent in the early-close modes
  long refused = 0;    // connect failed (ECONNREFUSED and the like)
  long reset = 0;      // ECONNRESET or EPIPE while talking
  long eof = 0;        // closed before the end tag arrived
  long timeouts = 0;
  double elapsed = 0;  // seconds from the first connect to the last completion
  std::vector<uint32_t> latencyUs;
  std::vector<float> doneAtS;  // when each complete reply arrived, seconds from the start

  // Complete replies per second between from and to seconds after the start.
  double PerSecondBetween(double from, double to) const;

  long Errors() const { return refused + reset + eof + timeouts; }
  double PerSecond() const { return elapsed > 0 ? static_cast<double>(ok) / elapsed : 0; }
  // p in [0, 100]; 0 when nothing completed.
  double PercentileMs(double p) const;
  // Round trips of a second or more: a dropped SYN costs a one-second retry.
  long SlowerThan(uint32_t ms) const;
};

// One request per connection, `concurrency` connections in flight, on an
// epoll loop with non-blocking sockets to 127.0.0.1.
LoadResult RunLoad(const LoadOptions& options);

// Opens `count` connections that send nothing; waits up to timeoutMs for
// them to be established. Returns the connected descriptors (the caller
// closes them); the others are closed and counted in `failed`.
std::vector<int> OpenIdle(int port, int count, int timeoutMs, long& failed);

// One request on one connection; everything read up to the server's close,
// or "" on failure. With delayMs, waits that long before reading, with a
// small receive buffer, like a slow client.
std::string FetchOnce(int port, const std::string& request, int timeoutMs = 5000, int delayMs = 0);

#endif  // QUELM_BENCH_LOADCLIENT_H_
