#ifndef QUELM_AGENT_SETTINGS_H_
#define QUELM_AGENT_SETTINGS_H_

#include <cstdint>

#include "foundation/process/OmUnixUser.h"
#include "foundation/string/OmUniString.h"

// The configuration the probe runs with. Bootstrap builds it once from the
// properties file; every other class reads it through mySettings. A
// default-constructed snapshot holds every built-in default.
struct Settings {
  uint32_t port;
  uint32_t windowSize;    // samples averaged per tool run
  uint32_t sampleRate;    // seconds between samples
  uint32_t hostLifeTime;  // seconds
  uint32_t minCacheSize;
  OmUniString filter;
  OmUniString probePath;  // the measuring tool's program and fixed argument
  OmUniString logDirectory;
  OmUniString pidDirectory;
  OmUniString logFilter;
  uint32_t maxVirtualMemory;      // KiB
  uint32_t maxPhysMemory;         // KiB
  uint32_t multiProcessorFactor;  // percent
  // Watch over the measuring tool; 0 leaves each watch off.
  uint32_t toolBufferLimit;      // bytes the read buffer may grow to
  uint32_t toolProcessGroup;     // 1: the tool runs in a process group of its own
  uint32_t toolRestartBackoff;   // 1: at most one start a sample interval
  uint32_t toolStallIntervals;   // sample intervals without data before a restart
  uint32_t speedRecalcInterval;  // seconds between speed recalculations
  OmUniString propertiesEncoding;  // the character set the file itself is in
  // Started as root, the probe serves as this user (and group) once its pid
  // file is written, and its tool runs as them throughout; empty: as started.
  OmUniString user;
  OmUniString group;
  // The two looked up (runAsUser below): set only when the switch can be made.
  bool runAs = false;
  OmUnixUser runAsUser;
  // Hardening of the command port and the logs; each off by default.
  uint32_t closeBrokenConnections;  // 1: a broken connection ends its circuit only
  uint32_t requestTimeout;          // seconds a connection may take to send its request
  uint32_t maxConnections;          // command connections open at once
  uint32_t descriptorReserve;       // descriptors kept free of command connections
  OmUniString clientAllow;          // "a.b.c.d[/n],...": who may use the command port
  uint32_t listenBacklog;           // 0: the system's maximum
  uint32_t strictPort;              // 1: a port above 65535 is a bad value
  uint32_t logFailureNotice;        // 1: failing log writes are reported on standard error
  // Who may subscribe and how subscribers' names are looked up; each is off
  // (any address, no cap, look-ups in place, nothing kept) at its default.
  OmUniString subscriberAllow;  // "a.b.c.d[/n],..." a create may name
  uint32_t maxSubscribers;      // hosts, look-ups under way included
  uint32_t resolveTimeout;      // seconds a look-up may take
  uint32_t resolveCache;        // seconds a found address is kept
  // The agent check and metrics ports; 0 leaves each closed.
  uint32_t agentCheckPort;
  uint32_t agentCheckMemoryWeight;  // percent of the weight taken from free virtual memory
  uint32_t agentCheckDrainIdle;     // percent idle below which the answer is drain
  uint32_t agentCheckDrainMemory;   // percent free virtual memory below which it is drain
  uint32_t metricsPort;
  OmUniString metricsAddress;
  // IPv6; each off (IPv4 alone) by default.
  OmUniString listenAddress;  // of the command and agent-check ports; empty: every IPv4 address
  uint32_t ipv6;              // 1: subscribers may be IPv6 addresses or names resolving to one
  // Where the load figures come from: "tool" (the measuring tool), "proc"
  // (read in-process) or "cgroup" (the service's own limits).
  OmUniString loadSource;
  OmUniString loadCgroup;               // the cgroup folder; empty: the probe's own
  uint32_t agentCheckPressureWeight;    // percent of the weight taken from processor pressure
  uint32_t agentCheckDrainPressure;     // processor pressure percent above which it is drain
  uint32_t agentCheckReadyMargin;       // points past each threshold before ready again
  uint32_t agentCheckMaxRise;           // points the weight may rise per answer; 0: any
  // Figures taken from the machine instead of the command line's and the
  // file's: empty / 0 leave them as configured.
  OmUniString processorCount;  // a number, or "auto"
  uint32_t memoryFromSystem;   // 1: the memory maxima from the system or the cgroup
  // What an attacker can still bend: the log's size, the look-ups, the
  // numbers of a request. Each is off at its default.
  uint32_t logRequestLimit;   // bytes of a request or reply a log copy keeps; 0: all
  uint32_t logRateLimit;      // copies of one message logged a second; 0: all
  uint32_t strictRequests;    // 1: a create's or kill's number must be a whole, fitting number
  uint32_t resolveLimit;      // name look-ups at work at once, given-up ones included; 0: no bound
  uint32_t resolvePerClient;  // of those, for one client address; 0: no bound
  // Restarts, upgrades and crashes; each off by default.
  OmUniString stateFile;        // subscriptions kept here across restarts; empty: none
  uint32_t systemd;             // 1: passed sockets, notifications and journal lines
  uint32_t speedEstimateChild;  // 1: recalculations run in a child, the loop never waits
  uint32_t earlySignals;        // 1: a stop during start-up is kept, not dropped

  Settings();

  // The sample-rate rule: at least 5 seconds a sample, at least 15 seconds a
  // window. Also applied to each subscriber's own wishes.
  static void applySampleRateRule(uint32_t& sampleRate, uint32_t& windowSize);
};

// One key of the properties file, its built-in default and the field it sets.
struct SettingKey {
  // Every key, in the order in which the configuration is written back.
  enum Id {
    Port,
    WindowSize,
    SampleRate,
    HostLifeTime,
    MinCacheSize,
    Filter,
    ProbePath,
    LogDirectory,
    PidDirectory,
    LogFilter,
    MaxVirtualMemory,
    MaxPhysMemory,
    MultiProcessorFactor,
    ToolBufferLimit,
    ToolProcessGroup,
    ToolRestartBackoff,
    ToolStallIntervals,
    SpeedRecalcInterval,
    PropertiesEncoding,
    User,
    Group,
    CloseBrokenConnections,
    RequestTimeout,
    MaxConnections,
    DescriptorReserve,
    ClientAllow,
    ListenBacklog,
    StrictPort,
    LogFailureNotice,
    SubscriberAllow,
    MaxSubscribers,
    ResolveTimeout,
    ResolveCache,
    AgentCheckPort,
    AgentCheckMemoryWeight,
    AgentCheckDrainIdle,
    AgentCheckDrainMemory,
    MetricsPort,
    MetricsAddress,
    ListenAddress,
    Ipv6,
    LoadSource,
    LoadCgroup,
    AgentCheckPressureWeight,
    AgentCheckDrainPressure,
    AgentCheckReadyMargin,
    AgentCheckMaxRise,
    ProcessorCount,
    MemoryFromSystem,
    LogRequestLimit,
    LogRateLimit,
    StrictRequests,
    ResolveLimit,
    ResolvePerClient,
    StateFile,
    Systemd,
    SpeedEstimateChild,
    EarlySignals,
    Count
  };

  Id id;  // its own place in the table, checked when compiled
  const char* name;
  uint32_t Settings::*number;   // a number key: its field, else null
  OmUniString Settings::*text;  // a text key: its field, else null
  uint32_t defaultNumber;       // in the file's unit
  const char* defaultText;
  unsigned shift;  // from the file's unit to the field's: MiB to KiB is 10
  // A key added later: 0 is a good value, a missing key is not reported (so a
  // file without it logs what it always did) and the largest good value.
  bool optional;
  uint32_t maxNumber;
  // An optional text key's check of its value; null takes any text.
  bool (*validText)(const OmUniString&) = nullptr;

  // Stores a value as read from the file.
  void set(Settings& settings, uint32_t fileValue) const { settings.*number = fileValue << shift; }
  void set(Settings& settings, const OmUniString& value) const { settings.*text = value; }
  // A number field as the file holds it.
  uint32_t fileValue(const Settings& settings) const { return settings.*number >> shift; }
};

extern const SettingKey kSettingKeys[SettingKey::Count];

#endif  // QUELM_AGENT_SETTINGS_H_
