#ifndef QUELM_AGENT_BOOTSTRAP_H_
#define QUELM_AGENT_BOOTSTRAP_H_

#include <cstdint>

#include "agent/Settings.h"
#include "foundation/properties/OmProperties.h"
#include "foundation/string/OmUniString.h"

// Reads quelmloadbalancing.properties from the directory given on the
// command line into the probe's Settings. Missing or bad values fall back to
// their defaults with a logged message; nothing here stops the probe. The
// key names and defaults live in kSettingKeys; the constants below name them.
class OmCodeset;

class Bootstrap {
 public:
  static const OmUniString bootstrapFile;
  static const OmUniString attrPort;
  static const OmUniString attrFilter;
  static const OmUniString attrProbePath;
  static const OmUniString attrLogDirectory;
  static const OmUniString attrPidDirectory;
  static const OmUniString attrWindowSize;
  static const OmUniString attrSampleRate;
  static const OmUniString attrHostLifeTime;
  static const OmUniString attrMinCacheSize;
  static const OmUniString attrLogFilter;
  static const OmUniString attrMaxVirtualMemory;
  static const OmUniString attrMaxPhysMemory;
  static const OmUniString attrMultiProcessorFactor;
  static const OmUniString DEFAULT_FILTER;
  static const OmUniString DEFAULT_PROBEPATH;
  static const OmUniString DEFAULT_LOGDIR;
  static const OmUniString DEFAULT_LOGFILTER;

  // checkOnly: every message goes to standard error and no log file is
  // opened, so that a configuration can be checked beside a running probe.
  Bootstrap(const OmUniString& directory, unsigned processors, bool checkOnly = false);
  Bootstrap(const Bootstrap&) = delete;
  Bootstrap& operator=(const Bootstrap&) = delete;

  static void checkSampleRateAndWindowSize(uint32_t& sampleRate, uint32_t& windowSize) {
    Settings::applySampleRateRule(sampleRate, windowSize);
  }
  // Run-time changes; setConfig writes every value back into the file.
  bool setSampleRateAndWindowSize(uint32_t sampleRate, uint32_t windowSize);
  bool setPort(unsigned port);
  bool setConfig();

  // The memory maxima (KiB) measured on the machine (memoryfromsystem=1);
  // the file keeps its own when the configuration is written back.
  void useMachineMemory(uint32_t maxVirtualKiB, uint32_t maxPhysKiB);

  const Settings& settings() const { return values; }
  int32_t getProcessors() const { return processors; }

 private:
  uint32_t GetUint(SettingKey::Id id);
  // An optional key: silent when missing, the default when bad.
  uint32_t GetOptionalUint(SettingKey::Id id);
  OmUniString GetString(SettingKey::Id id);
  OmUniString GetOptionalString(SettingKey::Id id);

  OmUniString directory;
  int32_t processors;
  bool checkOnly;
  OmProperties props;
  Settings values;
  // The file's own character set when it names one (null: read as US-ASCII,
  // leniently); the configuration is written back in it too.
  const OmCodeset* encoding = nullptr;
  bool machineMemory = false;
  uint32_t fileMaxVirtual = 0, fileMaxPhys = 0;
};

#endif  // QUELM_AGENT_BOOTSTRAP_H_
