#ifndef QUELM_HOSTS_RESPONDER_H_
#define QUELM_HOSTS_RESPONDER_H_

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/event/OmCallback.h"
#include "foundation/net/OmInetAddr.h"
#include "foundation/net/OmSocket.h"
#include "foundation/string/OmOSStream.h"
#include "foundation/string/OmStatus.h"
#include "foundation/string/OmUniString.h"
#include "measure/StatsPacket.h"

class OmEventLoop;

// The tags of a load packet and its stats record, written here once: the
// responder builds packets with them and the command port names the same
// texts among its constants.
struct PacketTags {
  static constexpr char XmlVersion[] = "<?xml version=\"1.0\"?>";
  static constexpr char DataStart[] = "<znalbdata>";
  static constexpr char DataEnd[] = "</znalbdata>";
  static constexpr char IdStart[] = "<id>";
  static constexpr char IdEnd[] = "</id>";
  static constexpr char SeqnoStart[] = "<seqno>";
  static constexpr char SeqnoEnd[] = "</seqno>";
  static constexpr char StatsStart[] = "<stats>";
  static constexpr char StatsEnd[] = "</stats>";
  static constexpr char Idle[] = "cpu=";
  static constexpr char Bogo[] = "bogo=";
  static constexpr char Vmem[] = "vmem=";
  static constexpr char MaxVmem[] = "vmax=";
  static constexpr char Pmem[] = "pmem=";
  static constexpr char MaxPmem[] = "pmax=";
  static constexpr char SwapIn[] = "sin=";
  static constexpr char SwapOut[] = "sout=";
  // Ends every entry of the stats record.
  static constexpr char EntryEnd[] = " ";
};

// Owns the probe's UDP sockets, one per address family (the IPv6 one only
// when subscribers may be IPv6), and sends load packets to subscribed hosts.
// Also owns the format of the stats record, which the get reply reuses.
class Responder {
 public:
  // Binds to any local address on a port the system chooses. A failure is
  // logged; later sends then fail one by one.
  Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  // Told of a packet that went out, with the figures it carried.
  class SentCB {
   public:
    virtual void packetSent(const StatsPacket& stats) = 0;

   protected:
    ~SentCB() = default;
  };

  // Builds and sends one packet; sent (if any) hears of its success. The
  // timestamp and text are accepted and not used: the sequence number always
  // comes from the clock. Within a batch of the loop's timeouts the packet
  // is queued (Success) and goes out with the batch's others in one system
  // call when the batch ends, each logged and reported in order; the sender
  // and its name must outlive the batch.
  OmStatus::Value sendLoadPacket(unsigned timestamp, const OmUniString& text, unsigned id,
                                 StatsPacket* stats, unsigned flags, const OmInetAddr& dest,
                                 const OmUniString& hostName, SentCB* sent = nullptr);
  // Queues the packets sent during the loop's timeout batches.
  void batchWith(OmEventLoop& loop);

  // Which entries the VMEM flag selects: a load packet's vmem is followed by
  // the configured maxima, physical memory and swapping; a reply's stands alone.
  enum StatsEntries { ReplyEntries, PacketEntries };
  // The stats record: "<stats>", the entries the flags (Host::CPU, BOGO,
  // VMEM) select, each followed by one space, then "</stats>". Memory in MiB.
  static void writeStats(OmOSStream& out, unsigned flags, const StatsPacket& stats,
                         int64_t bogomips, StatsEntries entries);

 private:
  struct Packet {
    std::string bytes;  // kept for its capacity
    OmInetAddr dest;
    const OmUniString* hostName = nullptr;
    StatsPacket stats;
    SentCB* sent = nullptr;
  };
  // Logs and counts a packet's outcome (an OmFile io result); a partial
  // write is a failure.
  OmStatus::Value report(int result, const Packet& p);
  void flushCB(OmEventCallback* cb, OmEvent::cbdispatch reason);
  OmSocket& socketFor(const OmInetAddr& dest) { return dest.IsIPv6() ? socket6 : socket; }

  OmSocket socket;
  OmSocket socket6;  // unopened unless IPv6 is on: its sends fail
  OmEventLoop* loop = nullptr;
  std::vector<Packet> packets;  // [0, queued) wait for the batch's end
  size_t queued = 0;
  std::vector<mmsghdr> headers;
  std::vector<iovec> buffers;
  std::vector<OmSockaddrInet> addresses;
  OmSimpleCallback<OmEvent::cbdispatch, Responder> flushCallback{this, &Responder::flushCB};
};

#endif  // QUELM_HOSTS_RESPONDER_H_
