#include "hosts/Responder.h"

#include <charconv>
#include <type_traits>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
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
                                          const OmInetAddr& dest, const OmUniString& hostName) {
  if (stats == nullptr) return OmStatus::Failure;
  packet.clear();
  PacketText out(packet);
  out << "<?xml version=\"1.0\"?>"
      << "<znalbdata>"
      << "<id>" << id << "</id>"
      << "<seqno>" << OmTimeVal::now().Time() << "</seqno>";
  writeStatsTo(out, flags, *stats, myBogomips->getBogomips(), PacketEntries);
  out << "</znalbdata>";
  return sendPacket(packet, dest, hostName);
}

OmStatus::Value Responder::sendPacket(const std::string& bytes, const OmInetAddr& dest,
                                      const OmUniString& hostName) {
  long done = 0;
  const int result =
      socket.WriteMessage(bytes.data(), static_cast<long>(bytes.size()), done, dest);

  const char* failure = nullptr;
  switch (result) {
    case OmFile::ioError: failure = "ioError"; break;
    case OmFile::ioPartial: failure = "ioPartial"; break;
    case OmFile::ioEndOfFile: failure = "ioEndOfFile"; break;
    default: break;
  }
  if (failure != nullptr) {
    ++probeCounters.loadPacketsFailed;
    LogLoadPacketFail(hostName, dest.AsString(true), OmUniString(failure),
                      static_cast<unsigned>(socket.LastError().Errno()));
    return OmStatus::Failure;
  }
  ++probeCounters.loadPacketsSent;
  LogLoadPacketSent(hostName, dest);
  return OmStatus::Success;
}
