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

}  // namespace

#define QUELM_KEY "varosa.config.quelmloadbalancing."

const SettingKey kSettingKeys[SettingKey::Count] = {
    {QUELM_KEY "port", &Settings::port, nullptr, 3579, nullptr, 0, false, 0},
    {QUELM_KEY "windowsize", &Settings::windowSize, nullptr, 120, nullptr, 0, false, 0},
    {QUELM_KEY "samplerate", &Settings::sampleRate, nullptr, 30, nullptr, 0, false, 0},
    {QUELM_KEY "hostlifetime", &Settings::hostLifeTime, nullptr, 86400, nullptr, 0, false, 0},
    {QUELM_KEY "mincachesize", &Settings::minCacheSize, nullptr, 10, nullptr, 0, false, 0},
    {QUELM_KEY "filter", nullptr, &Settings::filter, 0, "vmstatFilter", 0, false, 0},
    {QUELM_KEY "probepath", nullptr, &Settings::probePath, 0, "/usr/bin/vmstat -n", 0, false, 0},
    {QUELM_KEY "logdirectory", nullptr, &Settings::logDirectory, 0, "/tmp", 0, false, 0},
    {QUELM_KEY "piddirectory", nullptr, &Settings::pidDirectory, 0, "/tmp", 0, false, 0},
    // Every message to the .log file, errors also to the .csl file, fatal
    // errors also to standard error (the console sink).
    {QUELM_KEY "logfilter", nullptr, &Settings::logFilter, 0,
     "*/*/*:quelmloadprobe%%PID%%_error.log,"
     "*/*/*error:quelmloadprobe%%PID%%_error.csl,"
     "*/*/fatalerror:.../_beans/quelm.log.ConsoleSink",
     0, false, 0},
    {QUELM_KEY "maxvirtualmemory", &Settings::maxVirtualMemory, nullptr, 768, nullptr, 10, false, 0},
    {QUELM_KEY "maxphysicalmemory", &Settings::maxPhysMemory, nullptr, 256, nullptr, 10, false, 0},
    {QUELM_KEY "multiprocessorfactor", &Settings::multiProcessorFactor, nullptr, 80, nullptr, 0, false, 0},
    // The watch over the measuring tool, each off by default.
    {QUELM_KEY "toolbufferlimit", &Settings::toolBufferLimit, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {QUELM_KEY "toolprocessgroup", &Settings::toolProcessGroup, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "toolrestartbackoff", &Settings::toolRestartBackoff, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "toolstallintervals", &Settings::toolStallIntervals, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {QUELM_KEY "speedrecalcinterval", &Settings::speedRecalcInterval, nullptr, 0, nullptr, 0, true, UINT32_MAX},
    {QUELM_KEY "propertiesencoding", nullptr, &Settings::propertiesEncoding, 0, "US-ASCII", 0, true, 0, &usableEncoding},
    {QUELM_KEY "user", nullptr, &Settings::user, 0, "", 0, true, 0},
    {QUELM_KEY "group", nullptr, &Settings::group, 0, "", 0, true, 0},
    // Hardening of the command port and the logs, each off by default.
    {QUELM_KEY "closebrokenconnections", &Settings::closeBrokenConnections, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "requesttimeout", &Settings::requestTimeout, nullptr, 0, nullptr, 0, true, 86400},
    {QUELM_KEY "maxconnections", &Settings::maxConnections, nullptr, 0, nullptr, 0, true, 1048576},
    {QUELM_KEY "descriptorreserve", &Settings::descriptorReserve, nullptr, 0, nullptr, 0, true, 65536},
    {QUELM_KEY "clientallow", nullptr, &Settings::clientAllow, 0, "", 0, true, 0, &isAddressList},
    {QUELM_KEY "listenbacklog", &Settings::listenBacklog, nullptr, 5, nullptr, 0, true, 65535},
    {QUELM_KEY "strictport", &Settings::strictPort, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "logfailurenotice", &Settings::logFailureNotice, nullptr, 0, nullptr, 0, true, 1},
    // Subscribers: who, how many, and how long their names may take.
    {QUELM_KEY "subscriberallow", nullptr, &Settings::subscriberAllow, 0, "", 0, true, 0, &isAddressList},
    {QUELM_KEY "maxsubscribers", &Settings::maxSubscribers, nullptr, 0, nullptr, 0, true, 1000000},
    {QUELM_KEY "resolvetimeout", &Settings::resolveTimeout, nullptr, 0, nullptr, 0, true, 3600},
    {QUELM_KEY "resolvecache", &Settings::resolveCache, nullptr, 0, nullptr, 0, true, 86400},
    // The agent check for HAProxy and the metrics page, each off by default.
    {QUELM_KEY "agentcheckport", &Settings::agentCheckPort, nullptr, 0, nullptr, 0, true, 65535},
    {QUELM_KEY "agentcheckmemoryweight", &Settings::agentCheckMemoryWeight, nullptr, 0, nullptr, 0, true, 100},
    {QUELM_KEY "agentcheckdrainidle", &Settings::agentCheckDrainIdle, nullptr, 0, nullptr, 0, true, 100},
    {QUELM_KEY "agentcheckdrainmemory", &Settings::agentCheckDrainMemory, nullptr, 0, nullptr, 0, true, 100},
    {QUELM_KEY "metricsport", &Settings::metricsPort, nullptr, 0, nullptr, 0, true, 65535},
    // Loopback: the page is unauthenticated, so reaching it from elsewhere is a choice.
    {QUELM_KEY "metricsaddress", nullptr, &Settings::metricsAddress, 0, "127.0.0.1", 0, true, 0, &isAddress},
    // Restarts, upgrades and crashes, each off by default.
    {QUELM_KEY "statefile", nullptr, &Settings::stateFile, 0, "", 0, true, 0},
    {QUELM_KEY "systemd", &Settings::systemd, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "speedestimatechild", &Settings::speedEstimateChild, nullptr, 0, nullptr, 0, true, 1},
    {QUELM_KEY "earlysignals", &Settings::earlySignals, nullptr, 0, nullptr, 0, true, 1},
};

#undef QUELM_KEY

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
