#include "command/ParseCommand.h"

#include <cstdint>

#include "agent/Counters.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "command/Quelm_LbsTransmission.h"
#include "hosts/Host.h"
#include "hosts/HostListMgr.h"
#include "hosts/Responder.h"
#include "measure/Bogomips.h"
#include "measure/Cache.h"
#include "measure/ChildManager.h"
#include "measure/StatsPacket.h"

// Literals only: other classes' constants may not be constructed yet while
// these are.
const OmUniString ParseCommand::MYVERSION("1.0");
const OmUniString ParseCommand::CPU("cpu");
const OmUniString ParseCommand::BOGO("bogo");
const OmUniString ParseCommand::VMEM("vmem");
const OmUniString ParseCommand::GET("get /");
const OmUniString ParseCommand::NOTIMPL("<not implemented yet>");
const OmUniString ParseCommand::ZNALBINFO_ERROR("Error parsing command");

const OmUniString ParseCommand::XMLVERSION(PacketTags::XmlVersion);
const OmUniString ParseCommand::GET_REPLY_START("<znalbreply type=\"get\">");
const OmUniString ParseCommand::CREATE_REPLY_START("<znalbreply type=\"create\">");
const OmUniString ParseCommand::KILL_REPLY_START("<znalbreply type=\"kill\">");
const OmUniString ParseCommand::ADMIN_REPLY_START("<znalbreply type=\"admin\">");
const OmUniString ParseCommand::ERROR_REPLY_START("<znalbreply type=\"error\">");
const OmUniString ParseCommand::REPLY_END("</znalbreply>");
const OmUniString ParseCommand::VERSION_START("<version>");
const OmUniString ParseCommand::VERSION_END("</version>");
const OmUniString ParseCommand::ERROR_START("<error>");
const OmUniString ParseCommand::ERROR_END("</error>");
const OmUniString ParseCommand::CONNECTION_START("<connection>");
const OmUniString ParseCommand::CONNECTION_END("</connection>");
const OmUniString ParseCommand::ID_START(PacketTags::IdStart);
const OmUniString ParseCommand::ID_END(PacketTags::IdEnd);
const OmUniString ParseCommand::HOST_START("<host>");
const OmUniString ParseCommand::HOST_END("</host>");
const OmUniString ParseCommand::PORT_START("<port>");
const OmUniString ParseCommand::PORT_END("</port>");
const OmUniString ParseCommand::REPLYFREQUENCY_START("<replyfrequency>");
const OmUniString ParseCommand::REPLYFREQUENCY_END("</replyfrequency>");
const OmUniString ParseCommand::PERCENTCHANGE_START("<percentchange>");
const OmUniString ParseCommand::PERCENTCHANGE_END("</percentchange>");
const OmUniString ParseCommand::SAMPLERATE_START("<samplerate>");
const OmUniString ParseCommand::SAMPLERATE_END("</samplerate>");
const OmUniString ParseCommand::WINDOWSIZE_START("<windowsize>");
const OmUniString ParseCommand::WINDOWSIZE_END("</windowsize>");
const OmUniString ParseCommand::STAT_START(PacketTags::StatsStart);
const OmUniString ParseCommand::STAT_END(PacketTags::StatsEnd);
const OmUniString ParseCommand::TIME_START("<time>");
const OmUniString ParseCommand::TIME_END("</time>");
const OmUniString ParseCommand::SEQNO_START(PacketTags::SeqnoStart);
const OmUniString ParseCommand::SEQNO_END(PacketTags::SeqnoEnd);
const OmUniString ParseCommand::ZNALBDATA_START(PacketTags::DataStart);
const OmUniString ParseCommand::ZNALBDATA_END(PacketTags::DataEnd);
const OmUniString ParseCommand::ZNALBKILL_START("<znalbkill>");
const OmUniString ParseCommand::ZNALBKILL_END("</znalbkill>");
const OmUniString ParseCommand::STAT_IDLE_START(PacketTags::Idle);
const OmUniString ParseCommand::STAT_BOGO_START(PacketTags::Bogo);
const OmUniString ParseCommand::STAT_VMEM_START(PacketTags::Vmem);
const OmUniString ParseCommand::STAT_MAXVMEM_START(PacketTags::MaxVmem);
const OmUniString ParseCommand::STAT_PMEM_START(PacketTags::Pmem);
const OmUniString ParseCommand::STAT_MAXPMEM_START(PacketTags::MaxPmem);
const OmUniString ParseCommand::STAT_SWAPIN_START(PacketTags::SwapIn);
const OmUniString ParseCommand::STAT_SWAPOUT_START(PacketTags::SwapOut);
const OmUniString ParseCommand::NO_UPDATES("No Updates");

const OmUniString ParseCommand::PARSING_ERROR("Parsing error");
const OmUniString ParseCommand::VERSION_ERROR("Error parsing version; ");
const OmUniString ParseCommand::HOST_ERROR("Error parsing host; ");
const OmUniString ParseCommand::PORT_ERROR("Error parsing port; ");
const OmUniString ParseCommand::SAMPLERATE_ERROR("Error parsing samplerate; ");
const OmUniString ParseCommand::WINDOWSIZE_ERROR("Error parsing windowsize; ");
const OmUniString ParseCommand::ID_ERROR("Error parsing id; ");
const OmUniString ParseCommand::REPLYFREQUENCY_ERROR("Error parsing replyfrequency; ");
const OmUniString ParseCommand::PERCENTCHANGE_ERROR("Error parsing percentchange; ");
const OmUniString ParseCommand::STAT_ERROR("Error parsing stat; ");
const OmUniString ParseCommand::HOST_NOT_CREATED("Host not created");
const OmUniString ParseCommand::HOST_ID_START("Host with id ");
const OmUniString ParseCommand::HOST_ID_NOT_FOUND(" not found");
const OmUniString ParseCommand::NOT_IMPLEMENTED("Command not implemented");

namespace {

// The probe's stats record with the entries mask selects: its latest sample.
void writeCurrentStats(OmOSStream& out, unsigned mask) {
  StatsPacket current;
  current.idle = myCache->getCurrentIdle();
  current.vmem = myCache->getCurrentVmem() / 1024;
  Responder::writeStats(out, mask, current, myBogomips->getBogomips(), Responder::ReplyEntries);
}

// Everything a get's reply is made of. While none of it changes, a get is
// answered with the text built last time: a storm of gets against a long host
// list then costs a copy each instead of a rebuild each.
struct GetReplyState {
  OmUniString version;
  uint32_t port, sampleRate, windowSize, idle, vmem;
  OmTimeVal lastSample;
  int64_t bogomips;
  uint64_t hostTable, hostSends;
  bool operator==(const GetReplyState&) const = default;
};

struct LastGetReply {
  GetReplyState state;
  OmUniString text;
};

LastGetReply* lastGetReply = nullptr;  // lives as long as the process

}  // namespace

OmUniString& ParseCommand::doCommand(OmUniString& text) {
  text.Substitute("%20", " ");
  text.Substitute("%3D", "=");
  text.Substitute("%3F", "?");
  text.Substitute("%26", "&");
  LogCommandText(text);

  Quelm_LbsTransmission transmission(text);
  if (!transmission.isValid()) {
    ++probeCounters.commands[ProbeCounters::Unknown];
    errors << PARSING_ERROR;
    return errorReply(errors.Str());
  }

  const LbsCommand command = transmission.getCommand();
  const int type = static_cast<int>(command);
  ++probeCounters.commands[type < ProbeCounters::Unknown ? type : ProbeCounters::Unknown];
  const bool versionFound =
      transmission.getAttributes().getByName(Quelm_LbsTransmission::KEY_VERSION, version);
  // The get line carries no attributes, so there is no version to check.
  if (command == LbsCommand::GET) return doGetStatus();

  // Any version that starts with ours is accepted as ours.
  bool allowed = versionFound && version.Length() >= MYVERSION.Length() &&
                 version.SubString(0, MYVERSION.Length()) == MYVERSION;
  if (!allowed) errors << VERSION_ERROR;
  version = MYVERSION;

  OmUniString* result = nullptr;
  switch (command) {
    case LbsCommand::CREATE:
      allowed = checkCreate(transmission) && allowed;
      if (allowed) result = &doCreateHost();
      break;
    case LbsCommand::KILL:
      allowed = checkKill(transmission) && allowed;
      if (allowed) result = &doKill();
      break;
    case LbsCommand::ADMIN:
      allowed = checkAdmin(transmission) && allowed;
      if (allowed) result = &doAdmin();
      break;
    default:
      errors << transmission.showCommand(command);
      break;
  }
  // The stat values belong to the transmission, which ends here.
  stats[0] = stats[1] = stats[2] = nullptr;
  if (result != nullptr) return *result;
  return errorReply(errors.Str());
}

bool ParseCommand::readNumber(const OmUniString& text, unsigned max, unsigned& field) const {
  if (!strict) {
    field = text.AsUint32();
    return true;
  }
  // The integer conversion would take 69980 as port 4444, 4294967297 as id 1
  // and 7abc as 7: a hardened probe refuses what it would misread.
  const unsigned long length = text.Length();
  if (length == 0) return false;
  uint64_t value = 0;
  for (unsigned long i = 0; i < length; ++i) {
    const auto unit = text.At(i);
    if (unit < '0' || unit > '9') return false;
    value = value * 10 + (unit - '0');
    if (value > max) return false;
  }
  field = static_cast<unsigned>(value);
  return true;
}

bool ParseCommand::requireNonZero(Quelm_LbsTransmission& transmission, const OmUniString& key,
                                  unsigned& field, const OmUniString& error, unsigned max) {
  OmUniString value;
  bool ok = true;
  if (transmission.getAttributes().getByName(key, value)) ok = readNumber(value, max, field);
  if (ok && field != 0) return true;
  errors << error;
  return false;
}

bool ParseCommand::checkCreate(Quelm_LbsTransmission& transmission) {
  LbsAttributes& attributes = transmission.getAttributes();
  strict = mySettings->strictRequests != 0;
  bool ok = true;
  if (!attributes.getByName(Quelm_LbsTransmission::KEY_HOST, host)) {
    errors << HOST_ERROR;
    ok = false;
  }
  ok = checkPortAndSampling(transmission) && ok;
  ok = requireNonZero(transmission, Quelm_LbsTransmission::KEY_ID, id, ID_ERROR) && ok;
  ok = requireNonZero(transmission, Quelm_LbsTransmission::KEY_REPLYFREQUENCY, replyfreq,
                      REPLYFREQUENCY_ERROR) &&
       ok;

  // No change threshold at all is a valid wish.
  OmUniString value;
  if (!attributes.getByName(Quelm_LbsTransmission::KEY_PERCENTCHANGE, value) ||
      !readNumber(value, UINT32_MAX, percentchange)) {
    errors << PERCENTCHANGE_ERROR;
    ok = false;
  }

  if (!attributes.getAllByName(Quelm_LbsTransmission::KEY_STAT, stats, 3)) {
    errors << STAT_ERROR;
    ok = false;
  }
  return ok;
}

bool ParseCommand::checkKill(Quelm_LbsTransmission& transmission) {
  strict = mySettings->strictRequests != 0;
  return requireNonZero(transmission, Quelm_LbsTransmission::KEY_ID, id, ID_ERROR);
}

bool ParseCommand::checkAdmin(Quelm_LbsTransmission& transmission) {
  return checkPortAndSampling(transmission);
}

bool ParseCommand::checkPortAndSampling(Quelm_LbsTransmission& transmission) {
  bool ok = requireNonZero(transmission, Quelm_LbsTransmission::KEY_PORT, port, PORT_ERROR, 65535);
  ok = requireNonZero(transmission, Quelm_LbsTransmission::KEY_SAMPLERATE, samplerate,
                      SAMPLERATE_ERROR) &&
       ok;
  ok = requireNonZero(transmission, Quelm_LbsTransmission::KEY_WINDOWSIZE, windowsize,
                      WINDOWSIZE_ERROR) &&
       ok;
  return ok;
}

OmUniString& ParseCommand::doGetStatus() {
  const GetReplyState state{version,
                            mySettings->port,
                            myChildManager->getSampleRate(),
                            myChildManager->getWindowSize(),
                            myCache->getCurrentIdle(),
                            myCache->getCurrentVmem(),
                            myCache->getTimeOfLastSample(),
                            myBogomips->getBogomips(),
                            HostListMgr::getHosts().Revision(),
                            Host::sendRevision()};
  if (lastGetReply != nullptr && lastGetReply->state == state) {
    replyText = lastGetReply->text;
    return replyText;
  }
  buildGetReply();
  if (lastGetReply == nullptr) lastGetReply = new LastGetReply;
  lastGetReply->state = state;
  lastGetReply->text = replyText;
  return replyText;
}

void ParseCommand::buildGetReply() {
  reply << XMLVERSION << GET_REPLY_START;
  writeVersion();
  reply << PORT_START << mySettings->port << PORT_END;
  reply << SAMPLERATE_START << myChildManager->getSampleRate() << SAMPLERATE_END;
  reply << WINDOWSIZE_START << myChildManager->getWindowSize() << WINDOWSIZE_END;
  writeCurrentStats(reply, Host::CPU | Host::BOGO | Host::VMEM);
  reply << TIME_START << myCache->getTimeOfLastSample().AsRFC1123() << TIME_END;

  const auto hosts = HostListMgr::getHosts().Snapshot();
  if (hosts.empty()) reply << NO_UPDATES;
  for (const Host* h : hosts) {
    reply << CONNECTION_START;
    reply << ID_START << h->getId() << ID_END;
    reply << HOST_START << h->getName() << HOST_END;
    reply << PORT_START << h->getPort() << PORT_END;
    reply << REPLYFREQUENCY_START << h->getReplyFrequency() << REPLYFREQUENCY_END;
    reply << PERCENTCHANGE_START << h->getPercentChange() << PERCENTCHANGE_END;
    reply << SAMPLERATE_START << h->getSampleRate() << SAMPLERATE_END;
    reply << WINDOWSIZE_START << h->getWindowSize() << WINDOWSIZE_END;
    // What was last sent to the host, as sent (memory already in MiB).
    StatsPacket sent;
    sent.idle = h->getLastIdle();
    sent.vmem = h->getLastVmem();
    Responder::writeStats(reply, h->getFlags(), sent, h->getLastBogo(), Responder::ReplyEntries);
    reply << TIME_START << h->getLastSendTime().AsRFC1123() << TIME_END;
    reply << CONNECTION_END;
  }
  reply << REPLY_END;
  finish();
}

ParseCommand::~ParseCommand() {
  if (pending) HostListMgr::forgetAddHost(&createdCallback);
}

OmUniString& ParseCommand::doCreateHost() {
  for (const OmUniString* stat : stats) {
    if (stat == nullptr) continue;
    if (*stat == CPU) mask |= Host::CPU;
    if (*stat == BOGO) mask |= Host::BOGO;
    if (*stat == VMEM) mask |= Host::VMEM;
  }

  const Host* made =
      HostListMgr::addHost(host, port, samplerate, windowsize, replyfreq, percentchange, id,
                           version, mask, lateReply != nullptr ? &createdCallback : nullptr,
                           &pending, client);
  if (pending) return replyText;  // empty until the look-up ends
  return createdReply(made != nullptr);
}

void ParseCommand::createdCB(OmCallback<Host*>*, Host* host) {
  pending = false;
  lateReply->Dispatch(createdReply(host != nullptr));
}

OmUniString& ParseCommand::createdReply(bool created) {
  // Whatever kept the host from being made, the client hears the same.
  if (!created) return errorReply(HOST_NOT_CREATED);

  reply << XMLVERSION << CREATE_REPLY_START;
  writeVersion();
  reply << ID_START << id << ID_END;
  writeCurrentStats(reply, mask);
  reply << REPLY_END;
  return finish();
}

OmUniString& ParseCommand::doKill() {
  if (!HostListMgr::removeHost(id)) {
    OmOSStream error;
    error << HOST_ID_START << id << HOST_ID_NOT_FOUND;
    return errorReply(error.Str());
  }
  reply << XMLVERSION << KILL_REPLY_START;
  writeVersion();
  reply << ID_START << id << ID_END << REPLY_END;
  return finish();
}

OmUniString& ParseCommand::doAdmin() {
  // Changing the sampling settings remotely is deliberately not offered.
  return errorReply(NOT_IMPLEMENTED);
}

OmUniString& ParseCommand::errorReply(const OmUniString& error) {
  reply << XMLVERSION << ERROR_REPLY_START;
  writeVersion();
  reply << ERROR_START << GET << error << ERROR_END << REPLY_END;
  return finish();
}

void ParseCommand::writeVersion() { reply << VERSION_START << version << VERSION_END; }

OmUniString& ParseCommand::finish() {
  replyText = reply.Str();
  return replyText;
}
