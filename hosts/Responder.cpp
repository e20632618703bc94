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
  out << "<stats>";
  if (flags & Host::CPU) out << "cpu=" << stats.idle << " ";
  if (flags & Host::BOGO) out << "bogo=" << static_cast<long long>(bogomips) << " ";
  if (flags & Host::VMEM) {
    out << "vmem=" << stats.vmem << " ";
    if (entries == Responder::PacketEntries) {
      out << "vmax=" << mySettings->maxVirtualMemory / 1024 << " pmem=" << stats.pmem
          << " pmax=" << mySettings->maxPhysMemory / 1024 << " sin=" << stats.sin
          << " sout=" << stats.sout << " ";
    }
  }
  out << "</stats>";
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
  out << "<?xml version=\"1.0\"?>"
      << "<znalbdata>"
      << "<id>" << id << "</id>"
      << "<seqno>" << OmTimeVal::now().Time() << "</seqno>";
  writeStatsTo(out, flags, *stats, myBogomips->getBogomips(), PacketEntries);
  out << "</znalbdata>";
  p.dest = dest;
  p.hostName = &hostName;
  p.stats = *stats;
  p.sent = sent;
  if (batched) return OmStatus::Success;

  long done = 0;
  return report(socket.WriteMessage(p.bytes.data(), static_cast<long>(p.bytes.size()), done,
                                    dest),
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
    addresses[i] = packets[i].dest.ToSockaddr();
    buffers[i] = {packets[i].bytes.data(), packets[i].bytes.size()};
    headers[i] = {};
    headers[i].msg_hdr.msg_name = &addresses[i];
    headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    headers[i].msg_hdr.msg_iov = &buffers[i];
    headers[i].msg_hdr.msg_iovlen = 1;
  }
  // The kernel stops at a packet that fails and tells why only when asked
  // again starting with it: reported as a single send would be, the rest go
  // on without it.
  for (size_t next = 0; next < count;) {
    int result = OmFile::ioComplete;
    const unsigned sent =
        socket.WriteMessages(&headers[next], static_cast<unsigned>(count - next), result);
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
                      static_cast<unsigned>(socket.LastError().Errno()));
    return OmStatus::Failure;
  }
  ++probeCounters.loadPacketsSent;
  LogLoadPacketSent(*p.hostName, p.dest);
  if (p.sent != nullptr) p.sent->packetSent(p.stats);
  return OmStatus::Success;
}
