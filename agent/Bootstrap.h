#ifndef QUELM_AGENT_BOOTSTRAP_H_
#define QUELM_AGENT_BOOTSTRAP_H_

#include <cstdint>

#include "foundation/properties/OmProperties.h"
#include "foundation/string/OmUniString.h"

// The probe's configuration, read from quelmloadbalancing.properties in the
// directory given on the command line. Missing or bad values fall back to
// their defaults with a logged message; nothing here stops the probe.
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

  Bootstrap(const OmUniString& directory, unsigned processors);
  ~Bootstrap();
  Bootstrap(const Bootstrap&) = delete;
  Bootstrap& operator=(const Bootstrap&) = delete;

  // The sample-rate rule: at least 5 seconds a sample, at least 15 seconds a window.
  static void checkSampleRateAndWindowSize(uint32_t& sampleRate, uint32_t& windowSize);
  bool setSampleRateAndWindowSize(uint32_t sampleRate, uint32_t windowSize);
  bool setPort(unsigned port);
  bool setConfig();

  const OmUniString& getDirectory() const { return directory; }
  uint32_t getPort() const { return port; }
  const OmUniString& getFilter() const { return *filter; }
  const OmUniString& getProbePath() const { return *probePath; }
  const OmUniString& getLogDirectory() const { return *logDirectory; }
  const OmUniString& getPidDirectory() const { return *pidDirectory; }
  uint32_t getWindowSize() const { return windowSize; }
  uint32_t getSampleRate() const { return sampleRate; }
  uint32_t getMinCacheSize() const { return minCacheSize; }
  uint32_t getHostLifeTime() const { return hostLifeTime; }
  int32_t getProcessors() const { return processors; }
  uint32_t getMaxVirtualMemory() const { return maxVirtualMemory; }  // KiB
  uint32_t getMaxPhysMemory() const { return maxPhysMemory; }        // KiB
  uint32_t getMultiProcessorFactor() const { return multiProcessorFactor; }
  const OmUniString& getLogFilter() const { return *logFilter; }

 private:
  uint32_t GetUint(const OmUniString& key, uint32_t def);
  const OmUniString& GetString(const OmUniString& key, const OmUniString& def);
  void setDefaults();

  OmUniString directory;
  uint32_t port = 3579;
  const OmUniString* filter = &DEFAULT_FILTER;
  const OmUniString* probePath = &DEFAULT_PROBEPATH;
  const OmUniString* logDirectory = &DEFAULT_LOGDIR;
  const OmUniString* pidDirectory = &DEFAULT_LOGDIR;
  uint32_t windowSize = 120;
  uint32_t sampleRate = 30;
  uint32_t minCacheSize = 10;
  uint32_t hostLifeTime = 86400;
  int32_t processors = 1;
  uint32_t maxVirtualMemory = 768u << 10;
  uint32_t maxPhysMemory = 256u << 10;
  uint32_t multiProcessorFactor = 80;
  OmProperties props;
  const OmUniString* logFilter = &DEFAULT_LOGFILTER;
};

#endif  // QUELM_AGENT_BOOTSTRAP_H_
