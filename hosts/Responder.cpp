#include "hosts/Responder.h"

#include <charconv>
#include <type_traits>
#include <utility>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/net/OmSocketAddress.h"
#include "foundation/string/OmByteBuffer.h"
#include "foundation/string/OmTimeVal.h"
#include "hosts/Host.h"
#include "measure/Bogomips.h"
#include "measure/StatsPacket.h"

Responder::Responder() {
  if (!socket.Bind(OmSocketAddress(OmInetAddr()), OmSocket::Datagram, false, 0, false)) {
    LogResponderBindFailed(socket.LastError().Reason());
  }
  // The measuring tool has no business with the load packets' socket.
  socket.SetCloseOnExec(true);
  // Only when subscribers may be IPv6: a machine without IPv6 then stays silent.
  if (mySettings != nullptr && mySettings->ipv6 != 0 &&
      !socket6.Bind(OmSocketAddress(OmInetAddr::AddressAny6()), OmSocket::Datagram, false, 0,
                    false)) {
    LogResponderIPv6Failed(socket6.LastError().Reason());
  }
  socket6.SetCloseOnExec(true);
}

namespace {

// A load packet's text, built straight into ASCII bytes: numbers in decimal
// as OmOSStream writes them, literals as they stand.
class PacketText {
 public:
  explicit PacketText(std::string& text) : out(text) {}
  PacketText& operator<<(const char* s) {
    out.append(s);
    return *this;
  }
  template <typename T>
    requires std::is_integral_v<T>
  PacketText& operator<<(T v) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, v).ptr;
    out.append(digits, static_cast<size_t>(end - digits));
    return *this;
  }

 private:
  std::string& out;
};

template <typename Out>
void writeStatsTo(Out& out, unsigned flags, const StatsPacket& stats, int64_t bogomips,
                  Responder::StatsEntries entries) {
  using T = PacketTags;
  out << T::StatsStart;
  if (flags & Host::CPU) out << T::Idle << stats.idle << T::EntryEnd;
  if (flags & Host::BOGO) out << T::Bogo << static_cast<long long>(bogomips) << T::EntryEnd;
  if (flags & Host::VMEM) {
    out << T::Vmem << stats.vmem << T::EntryEnd;
    if (entries == Responder::PacketEntries) {
      out << T::MaxVmem << mySettings->maxVirtualMemory / 1024 << T::EntryEnd << T::Pmem << stats.pmem
          << T::EntryEnd << T::MaxPmem << mySettings->maxPhysMemory / 1024 << T::EntryEnd << T::SwapIn
          << stats.sin << T::EntryEnd << T::SwapOut << stats.sout << T::EntryEnd;
    }
  }
  out << T::StatsEnd;
}

}  // namespace

void Responder::writeStats(OmOSStream& out, unsigned flags, const StatsPacket& stats,
                           int64_t bogomips, StatsEntries entries) {
  writeStatsTo(out, flags, stats, bogomips, entries);
}

OmStatus::Value Responder::sendLoadPacket(unsigned, const OmUniString&, unsigned id,
                                          StatsPacket* stats, unsigned flags,
                                          const OmInetAddr& dest, const OmUniString& hostName,
                                          SentCB* sent) {
  if (stats == nullptr) return OmStatus::Failure;
  const bool batched = loop != nullptr && loop->InBatch();
  const size_t slot = batched ? queued++ : queued;
  if (packets.size() <= slot) packets.resize(slot + 1);
  Packet& p = packets[slot];
  p.bytes.clear();
  PacketText out(p.bytes);
  out << PacketTags::XmlVersion << PacketTags::DataStart << PacketTags::IdStart << id
      << PacketTags::IdEnd << PacketTags::SeqnoStart << OmTimeVal::now().Time() << PacketTags::SeqnoEnd;
  writeStatsTo(out, flags, *stats, myBogomips->getBogomips(), PacketEntries);
  out << PacketTags::DataEnd;
  p.dest = dest;
  p.hostName = &hostName;
  p.stats = *stats;
  p.sent = sent;
  if (batched) return OmStatus::Success;

  long done = 0;
  return report(socketFor(dest).WriteMessage(p.bytes.data(), static_cast<long>(p.bytes.size()),
                                             done, dest),
                p);
}

void Responder::batchWith(OmEventLoop& eventLoop) {
  loop = &eventLoop;
  loop->SetAfterBatch(&flushCallback);
}

void Responder::flushCB(OmEventCallback*, OmEvent::cbdispatch) {
  const size_t count = std::exchange(queued, 0);
  headers.resize(count);
  buffers.resize(count);
  addresses.resize(count);
  for (size_t i = 0; i < count; ++i) {
    buffers[i] = {packets[i].bytes.data(), packets[i].bytes.size()};
    headers[i] = {};
    headers[i].msg_hdr.msg_name = &addresses[i];
    headers[i].msg_hdr.msg_namelen = packets[i].dest.ToSockaddr(addresses[i]);
    headers[i].msg_hdr.msg_iov = &buffers[i];
    headers[i].msg_hdr.msg_iovlen = 1;
  }
  // The kernel stops at a packet that fails and tells why only when asked
  // again starting with it: reported as a single send would be, the rest go
  // on without it. A system call takes one socket: each run of packets of
  // one family goes in calls of its own, in order.
  for (size_t next = 0; next < count;) {
    const int family = packets[next].dest.Family();
    size_t runEnd = next + 1;
    while (runEnd < count && packets[runEnd].dest.Family() == family) ++runEnd;
    OmSocket& out = socketFor(packets[next].dest);
    int result = OmFile::ioComplete;
    const unsigned sent =
        out.WriteMessages(&headers[next], static_cast<unsigned>(runEnd - next), result);
    for (const size_t end = next + sent; next < end; ++next) report(result, packets[next]);
    if (sent == 0) report(result, packets[next++]);
  }
}

OmStatus::Value Responder::report(int result, const Packet& p) {
  const char* failure = nullptr;
  switch (result) {
    case OmFile::ioError: failure = "ioError"; break;
    case OmFile::ioPartial: failure = "ioPartial"; break;
    case OmFile::ioEndOfFile: failure = "ioEndOfFile"; break;
    default: break;
  }
  if (failure != nullptr) {
    ++probeCounters.loadPacketsFailed;
    LogLoadPacketFail(*p.hostName, p.dest.AsString(true), OmUniString(failure),
                      static_cast<unsigned>(socketFor(p.dest).LastError().Errno()));
    return OmStatus::Failure;
  }
  ++probeCounters.loadPacketsSent;
  LogLoadPacketSent(*p.hostName, p.dest);
  if (p.sent != nullptr) p.sent->packetSent(p.stats);
  return OmStatus::Success;
}
