#ifndef QUELM_PORTS_METRICSPAGE_H_
#define QUELM_PORTS_METRICSPAGE_H_

#include <string>

#include "ports/ReplyListener.h"

// The metrics port: "GET /metrics" over HTTP/1.x answers the probe's figures,
// counters and process figures in Prometheus' text format 0.0.4; every
// answer closes the connection. Anything that is not a request line of
// HTTP/1.x is refused at once with 400, a request whose head outgrows
// MAXHEAD with 431.
class MetricsPage : public ReplyListener::Service {
 public:
  static constexpr unsigned long MAXHEAD = 4096;

  Verdict serve(const OmByteBuffer& received, OmByteBuffer& reply) override;

  // The exposition text as it stands now.
  static std::string page();
};

#endif  // QUELM_PORTS_METRICSPAGE_H_
