#include "agent/Settings.h"

#include "foundation/net/OmAddressRange.h"
#include "foundation/properties/OmProperties.h"
#include "foundation/string/OmCodeset.h"
#include "foundation/net/OmInetAddr.h"

namespace {

bool usableEncoding(const OmUniString& name) {
  const OmCodeset* codeset = OmCodeset::Find(name);
  return codeset != nullptr && OmProperties::Usable(*codeset);
}

bool isAddressList(const OmUniString& text) { return OmAddressRangeList().Parse(text); }

bool isAddress(const OmUniString& text) {
  OmInetAddr address;
  return address.FromString(text, false);
}

bool isListenAddress(const OmUniString& text) { return OmInetAddr().FromListenText(text, 0); }

bool isLoadSource(const OmUniString& text) {
  return text == OmUniString("tool") || text == OmUniString("proc") || text == OmUniString("cgroup");
}

bool isProcessorCount(const OmUniString& text) {
  if (text == OmUniString("auto") || text.Length() == 0) return true;
  const std::string digits = text.AsAscii();
  return digits.size() <= 4 && digits.find_first_not_of("0123456789") == std::string::npos &&
         text.AsUint32() > 0;
}

}  // namespace

#define QUELM_KEY "varosa.config.quelmloadbalancing."

constexpr SettingKey kSettingKeys[SettingKey::Count] = {
    {SettingKey::Port, QUELM_KEY "port", &Settings::port, nullptr, 3579, nullptr, 0, false, 0},
    {SettingKey::WindowSize, QUELM_KEY "windowsize", &Settings::windowSize, nullptr, 120, nullptr, 0, false, 0},
    {SettingKey::SampleRate, QUELM_KEY "samplerate", &Settings::sampleRate, nullptr, 30, nullptr, 0, false, 0},
    {SettingKey::HostLifeTime, QUELM_KEY "hostlifetime", &Settings::hostLifeTime, nullptr, 86400, nullptr, 0, false, 0},
    {SettingKey::MinCacheSize, QUELM_KEY "mincachesize", &Settings::minCacheSize, nullptr, 10, nullptr, 0, false, 0},
    {SettingKey::Filter, QUELM_KEY "filter", nullptr, &Settings::filter, 0, "vmstatFilter", 0, false, 0},
    {SettingKey::ProbePath, QUELM_KEY "probepath", nullptr, &Settings::probePath, 0, "/usr/bin/vmstat -n", 0, false, 0},
    {SettingKey::LogDirectory, QUELM_KEY "logdirectory", nullptr, &Settings::logDirectory, 0, "/tmp", 0, false, 0},
    {SettingKey::PidDirectory, QUELM_KEY "piddirectory", nullptr, &Settings::pidDirectory, 0, "/tmp", 0, false, 0},
    // Every message to the .log file, errors also to the .csl file, fatal
    // errors also to standard error (the console sink).
    {SettingKey::LogFilter, QUELM_KEY "logfilter", nullptr, &Settings::logFilter, 0,
     "*/*/*:quelmloadprobe%%PID%%_error.log,"
     "*/*/*error:quelmloadprobe%%PID%%_error.csl,"
     "*/*/fatalerror:.../_beans/quelm.log.ConsoleSink",
     0, false, 0},
    {SettingKey::MaxVirtualMemory, QUELM_KEY "maxvirtualmemory", &Settings::maxVirtualMemory, nullptr, 768, nullptr, 10, false, 0},
    {SettingKey::MaxPhysMemory, QUELM_KEY "maxphysicalmemory", &Settings::maxPhysMemory, nullptr, 256, nullptr, 10, false, 0},
    {SettingKey::MultiProcessorFactor, QUELM_KEY "multiprocessorfactor", &Settings::multiProcessorFactor, nullptr, 80, nullptr, 0, false, 0},
    // The watch over the measuring tool, each off by default.
    {SettingKey::ToolBufferLimit, QUELM_KEY "toolbufferlimit", &Settings::toolBufferLimit, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {SettingKey::ToolProcessGroup, QUELM_KEY "toolprocessgroup", &Settings::toolProcessGroup, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::ToolRestartBackoff, QUELM_KEY "toolrestartbackoff", &Settings::toolRestartBackoff, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::ToolStallIntervals, QUELM_KEY "toolstallintervals", &Settings::toolStallIntervals, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {SettingKey::SpeedRecalcInterval, QUELM_KEY "speedrecalcinterval", &Settings::speedRecalcInterval, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {SettingKey::PropertiesEncoding, QUELM_KEY "propertiesencoding", nullptr, &Settings::propertiesEncoding, 0, "US-ASCII", 0, true, 0, &usableEncoding},
    {SettingKey::User, QUELM_KEY "user", nullptr, &Settings::user, 0, "", 0, true, 0},
    {SettingKey::Group, QUELM_KEY "group", nullptr, &Settings::group, 0, "", 0, true, 0},
    // Hardening of the command port and the logs, each off by default.
    {SettingKey::CloseBrokenConnections, QUELM_KEY "closebrokenconnections", &Settings::closeBrokenConnections, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::RequestTimeout, QUELM_KEY "requesttimeout", &Settings::requestTimeout, nullptr, 0, nullptr, 0, true, 86400},
    {SettingKey::MaxConnections, QUELM_KEY "maxconnections", &Settings::maxConnections, nullptr, 0, nullptr, 0, true, 1048576},
    {SettingKey::DescriptorReserve, QUELM_KEY "descriptorreserve", &Settings::descriptorReserve, nullptr, 0, nullptr, 0, true, 65536},
    {SettingKey::ClientAllow, QUELM_KEY "clientallow", nullptr, &Settings::clientAllow, 0, "", 0, true, 0, &isAddressList},
    {SettingKey::ListenBacklog, QUELM_KEY "listenbacklog", &Settings::listenBacklog, nullptr, 5, nullptr, 0, true, 65535},
    {SettingKey::StrictPort, QUELM_KEY "strictport", &Settings::strictPort, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::LogFailureNotice, QUELM_KEY "logfailurenotice", &Settings::logFailureNotice, nullptr, 0, nullptr, 0, true, 1},
    // Subscribers: who, how many, and how long their names may take.
    {SettingKey::SubscriberAllow, QUELM_KEY "subscriberallow", nullptr, &Settings::subscriberAllow, 0, "", 0, true, 0, &isAddressList},
    {SettingKey::MaxSubscribers, QUELM_KEY "maxsubscribers", &Settings::maxSubscribers, nullptr, 0, nullptr, 0, true, 1000000},
    {SettingKey::ResolveTimeout, QUELM_KEY "resolvetimeout", &Settings::resolveTimeout, nullptr, 0, nullptr, 0, true, 3600},
    {SettingKey::ResolveCache, QUELM_KEY "resolvecache", &Settings::resolveCache, nullptr, 0, nullptr, 0, true, 86400},
    // The agent check for HAProxy and the metrics page, each off by default.
    {SettingKey::AgentCheckPort, QUELM_KEY "agentcheckport", &Settings::agentCheckPort, nullptr, 0, nullptr, 0, true, 65535},
    {SettingKey::AgentCheckMemoryWeight, QUELM_KEY "agentcheckmemoryweight", &Settings::agentCheckMemoryWeight, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::AgentCheckDrainIdle, QUELM_KEY "agentcheckdrainidle", &Settings::agentCheckDrainIdle, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::AgentCheckDrainMemory, QUELM_KEY "agentcheckdrainmemory", &Settings::agentCheckDrainMemory, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::MetricsPort, QUELM_KEY "metricsport", &Settings::metricsPort, nullptr, 0, nullptr, 0, true, 65535},
    // Loopback: the page is unauthenticated, so reaching it from elsewhere is a choice.
    {SettingKey::MetricsAddress, QUELM_KEY "metricsaddress", nullptr, &Settings::metricsAddress, 0, "127.0.0.1", 0, true, 0, &isAddress},
    // IPv6, off by default: "::" listens on every address of both families.
    {SettingKey::ListenAddress, QUELM_KEY "listenaddress", nullptr, &Settings::listenAddress, 0, "", 0, true, 0, &isListenAddress},
    {SettingKey::Ipv6, QUELM_KEY "ipv6", &Settings::ipv6, nullptr, 0, nullptr, 0, true, 1},
    // The load source and the agent check's pressure and steadiness; the
    // defaults measure and answer as the measuring tool always did.
    {SettingKey::LoadSource, QUELM_KEY "loadsource", nullptr, &Settings::loadSource, 0, "tool", 0, true, 0, &isLoadSource},
    {SettingKey::LoadCgroup, QUELM_KEY "loadcgroup", nullptr, &Settings::loadCgroup, 0, "", 0, true, 0},
    {SettingKey::AgentCheckPressureWeight, QUELM_KEY "agentcheckpressureweight", &Settings::agentCheckPressureWeight, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::AgentCheckDrainPressure, QUELM_KEY "agentcheckdrainpressure", &Settings::agentCheckDrainPressure, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::AgentCheckReadyMargin, QUELM_KEY "agentcheckreadymargin", &Settings::agentCheckReadyMargin, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::AgentCheckMaxRise, QUELM_KEY "agentcheckmaxrise", &Settings::agentCheckMaxRise, nullptr, 0, nullptr, 0, true, 100},
    {SettingKey::ProcessorCount, QUELM_KEY "processorcount", nullptr, &Settings::processorCount, 0, "", 0, true, 0, &isProcessorCount},
    {SettingKey::MemoryFromSystem, QUELM_KEY "memoryfromsystem", &Settings::memoryFromSystem, nullptr, 0, nullptr, 0, true, 1},
    // Bounds on what one client can make the probe write, wait for or misread.
    {SettingKey::LogRequestLimit, QUELM_KEY "logrequestlimit", &Settings::logRequestLimit, nullptr, 0, nullptr, 0, true, 1048576},
    {SettingKey::LogRateLimit, QUELM_KEY "logratelimit", &Settings::logRateLimit, nullptr, 0, nullptr, 0, true, 1000000},
    {SettingKey::StrictRequests, QUELM_KEY "strictrequests", &Settings::strictRequests, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::ResolveLimit, QUELM_KEY "resolvelimit", &Settings::resolveLimit, nullptr, 0, nullptr, 0, true, 1024},
    {SettingKey::ResolvePerClient, QUELM_KEY "resolveperclient", &Settings::resolvePerClient, nullptr, 0, nullptr, 0, true, 1024},
    // Restarts, upgrades and crashes, each off by default.
    {SettingKey::StateFile, QUELM_KEY "statefile", nullptr, &Settings::stateFile, 0, "", 0, true, 0},
    {SettingKey::Systemd, QUELM_KEY "systemd", &Settings::systemd, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::SpeedEstimateChild, QUELM_KEY "speedestimatechild", &Settings::speedEstimateChild, nullptr, 0, nullptr, 0, true, 1},
    {SettingKey::EarlySignals, QUELM_KEY "earlysignals", &Settings::earlySignals, nullptr, 0, nullptr, 0, true, 1},
};

#undef QUELM_KEY

namespace {

// SettingKey::Id names a key by its row: a row out of place would read and
// write another key's value.
constexpr bool keysFollowIds() {
  for (int i = 0; i < SettingKey::Count; ++i) {
    if (kSettingKeys[i].id != i) return false;
  }
  return true;
}
static_assert(keysFollowIds(), "kSettingKeys must list its rows in SettingKey::Id order");

}  // namespace

Settings::Settings() {
  for (const SettingKey& key : kSettingKeys) {
    if (key.number != nullptr) {
      key.set(*this, key.defaultNumber);
    } else {
      key.set(*this, OmUniString(key.defaultText));
    }
  }
}

void Settings::applySampleRateRule(uint32_t& rate, uint32_t& window) {
  if (rate < 5) {
    if (window == 0) {
      window = 3;
      rate = 5;
      return;
    }
    rate = 5;
  } else if (window == 0) {
    window = 1;
  }
  if (window * rate < 15) {
    window = 3;
    rate = 5;
  }
}
