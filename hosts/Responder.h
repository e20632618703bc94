#ifndef QUELM_HOSTS_RESPONDER_H_
#define QUELM_HOSTS_RESPONDER_H_

#include <cstdint>
#include <string>

#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmStatus.h"
#include "foundation/string/OmUniString.h"

struct StatsPacket;

// Owns the probe's UDP socket and sends load packets to subscribed hosts.
// Also owns the format of the stats record, which the get reply reuses.
class Responder {
 public:
  // Binds to any local address on a port the system chooses. A failure is
  // logged; later sends then fail one by one.
  Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  // Builds and sends one packet. The timestamp and text are accepted and not
  // used: the sequence number always comes from the clock.
  OmStatus::Value sendLoadPacket(unsigned timestamp, const OmUniString& text, unsigned id,
                                 StatsPacket* stats, unsigned flags, const OmInetAddr& dest,
                                 const OmUniString& hostName);

  // Which entries the VMEM flag selects: a load packet's vmem is followed by
  // the configured maxima, physical memory and swapping; a reply's stands alone.
  enum StatsEntries { ReplyEntries, PacketEntries };
  // The stats record: "<stats>", the entries the flags (Host::CPU, BOGO,
  // VMEM) select, each followed by one space, then "</stats>". Memory in MiB.
  static void writeStats(OmOSStream& out, unsigned flags, const StatsPacket& stats,
                         int64_t bogomips, StatsEntries entries);

 private:
  // One datagram of the packet's bytes; a partial write is a failure.
  OmStatus::Value sendPacket(const std::string& packet, const OmInetAddr& dest,
                             const OmUniString& hostName);

  OmSocket socket;
  std::string packet;  // kept for its capacity: one packet is built at a time
};

#endif  // QUELM_HOSTS_RESPONDER_H_
