#include "hosts/Responder.h"

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

void Responder::writeStats(OmOSStream& out, unsigned flags, const StatsPacket& stats,
                           int64_t bogomips, StatsEntries entries) {
  out << "<stats>";
  if (flags & Host::CPU) out << "cpu=" << stats.idle << " ";
  if (flags & Host::BOGO) out << "bogo=" << static_cast<long long>(bogomips) << " ";
  if (flags & Host::VMEM) {
    out << "vmem=" << stats.vmem << " ";
    if (entries == PacketEntries) {
      out << "vmax=" << mySettings->maxVirtualMemory / 1024 << " pmem=" << stats.pmem
          << " pmax=" << mySettings->maxPhysMemory / 1024 << " sin=" << stats.sin
          << " sout=" << stats.sout << " ";
    }
  }
  out << "</stats>";
}

OmStatus::Value Responder::sendLoadPacket(unsigned, const OmUniString&, unsigned id,
                                          StatsPacket* stats, unsigned flags,
                                          const OmInetAddr& dest, const OmUniString& hostName) {
  if (stats == nullptr) return OmStatus::Failure;
  OmOSStream packet;
  packet << "<?xml version=\"1.0\"?>"
         << "<znalbdata>"
         << "<id>" << id << "</id>"
         << "<seqno>" << OmTimeVal::now().Time() << "</seqno>";
  writeStats(packet, flags, *stats, myBogomips->getBogomips(), PacketEntries);
  packet << "</znalbdata>";
  return sendPacket(packet, dest, hostName);
}

OmStatus::Value Responder::sendPacket(const OmOSStream& packet, const OmInetAddr& dest,
                                      const OmUniString& hostName) {
  const OmByteBuffer bytes = packet.Str().AsEncoding(OmEncoding::USASCII);
  long done = 0;
  const int result =
      socket.WriteMessage(bytes.Data(), static_cast<long>(bytes.Length()), done, dest);
  const OmUniString destination = dest.AsString(true);

  const char* failure = nullptr;
  switch (result) {
    case OmFile::ioError: failure = "ioError"; break;
    case OmFile::ioPartial: failure = "ioPartial"; break;
    case OmFile::ioEndOfFile: failure = "ioEndOfFile"; break;
    default: break;
  }
  if (failure != nullptr) {
    ++probeCounters.loadPacketsFailed;
    LogLoadPacketFail(hostName, destination, OmUniString(failure),
                      static_cast<unsigned>(socket.LastError().Errno()));
    return OmStatus::Failure;
  }
  ++probeCounters.loadPacketsSent;
  LogLoadPacketSent(hostName, destination);
  return OmStatus::Success;
}
