#include "agent/Bootstrap.h"

#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/Messages.h"
#include "foundation/string/OmFile.h"

const OmUniString Bootstrap::bootstrapFile("/quelmloadbalancing.properties");
const OmUniString Bootstrap::attrPort("varosa.config.quelmloadbalancing.port");
const OmUniString Bootstrap::attrFilter("varosa.config.quelmloadbalancing.filter");
const OmUniString Bootstrap::attrProbePath("varosa.config.quelmloadbalancing.probepath");
const OmUniString Bootstrap::attrLogDirectory("varosa.config.quelmloadbalancing.logdirectory");
const OmUniString Bootstrap::attrPidDirectory("varosa.config.quelmloadbalancing.piddirectory");
const OmUniString Bootstrap::attrWindowSize("varosa.config.quelmloadbalancing.windowsize");
const OmUniString Bootstrap::attrSampleRate("varosa.config.quelmloadbalancing.samplerate");
const OmUniString Bootstrap::attrHostLifeTime("varosa.config.quelmloadbalancing.hostlifetime");
const OmUniString Bootstrap::attrMinCacheSize("varosa.config.quelmloadbalancing.mincachesize");
const OmUniString Bootstrap::attrLogFilter("varosa.config.quelmloadbalancing.logfilter");
const OmUniString Bootstrap::attrMaxVirtualMemory(
    "varosa.config.quelmloadbalancing.maxvirtualmemory");
const OmUniString Bootstrap::attrMaxPhysMemory("varosa.config.quelmloadbalancing.maxphysicalmemory");
const OmUniString Bootstrap::attrMultiProcessorFactor(
    "varosa.config.quelmloadbalancing.multiprocessorfactor");
const OmUniString Bootstrap::DEFAULT_FILTER("vmstatFilter");
const OmUniString Bootstrap::DEFAULT_PROBEPATH("/usr/bin/vmstat -n");
const OmUniString Bootstrap::DEFAULT_LOGDIR("/tmp");
// Every message to the .log file, errors also to the .csl file, fatal errors
// also to standard error (the console sink).
const OmUniString Bootstrap::DEFAULT_LOGFILTER(
    "*/*/*:quelmloadprobe%%PID%%_error.log,"
    "*/*/*error:quelmloadprobe%%PID%%_error.csl,"
    "*/*/fatalerror:.../_beans/quelm.log.ConsoleSink");

namespace {

constexpr uint32_t kDefaultPort = 3579;
constexpr uint32_t kDefaultWindowSize = 120;
constexpr uint32_t kDefaultSampleRate = 30;
constexpr uint32_t kDefaultHostLifeTime = 86400;
constexpr uint32_t kDefaultMinCacheSize = 10;
constexpr uint32_t kDefaultMaxVirtualMemory = 768;  // MiB
constexpr uint32_t kDefaultMaxPhysMemory = 256;     // MiB
constexpr uint32_t kDefaultMultiProcessorFactor = 80;

bool isDirectory(const OmUniString& path) { return OmFile::IsDirectory(path.AsUtf8().c_str()); }

}  // namespace

Bootstrap::Bootstrap(const OmUniString& dir, unsigned procs)
    : directory(dir), processors(static_cast<int32_t>(procs)) {
  if (directory.IsEmpty()) {
    // Nothing to load; the rest of start-up still needs defined values.
    setDefaults();
    return;
  }

  const OmUniString path = directory + bootstrapFile;
  if (!props.Load(path)) {
    setDefaults();
    bootLogger = new Logging(DEFAULT_LOGDIR, DEFAULT_LOGFILTER);
    LogPropsNotFound(path);
    return;
  }

  // The log set-up needs the log directory and filter first; complaints about
  // them are reported once it exists.
  const OmUniString* logDir = props.Get(attrLogDirectory);
  const bool logDirMissing = logDir == nullptr;
  logDirectory = logDirMissing ? &DEFAULT_LOGDIR : logDir;
  const OmUniString* badLogDir = nullptr;
  if (!isDirectory(*logDirectory)) {
    badLogDir = logDirectory;
    logDirectory = &DEFAULT_LOGDIR;
  }
  const OmUniString* filterText = props.Get(attrLogFilter);
  logFilter = filterText != nullptr ? filterText : &DEFAULT_LOGFILTER;

  bootLogger = new Logging(*logDirectory, *logFilter);

  if (logDirMissing) LogStringAttrNonExistant(attrLogDirectory, DEFAULT_LOGDIR);
  if (badLogDir != nullptr) LogPathNotDirectory(*badLogDir, DEFAULT_LOGDIR, attrLogDirectory);
  if (filterText == nullptr) LogStringAttrNonExistant(attrLogFilter, DEFAULT_LOGFILTER);

  port = GetUint(attrPort, kDefaultPort);
  windowSize = GetUint(attrWindowSize, kDefaultWindowSize);
  sampleRate = GetUint(attrSampleRate, kDefaultSampleRate);
  hostLifeTime = GetUint(attrHostLifeTime, kDefaultHostLifeTime);
  minCacheSize = GetUint(attrMinCacheSize, kDefaultMinCacheSize);

  filter = &GetString(attrFilter, DEFAULT_FILTER);

  probePath = &GetString(attrProbePath, DEFAULT_PROBEPATH);
  const long space = probePath->Search(' ');
  const OmUniString program = space < 0 ? *probePath : probePath->SubString(0, space);
  if (!OmFile::DoesPathExist(program.AsUtf8().c_str())) {
    LogPathNonExistant(program, DEFAULT_PROBEPATH, attrProbePath);
    probePath = &DEFAULT_PROBEPATH;
  }

  // Unlike the log directory, a bad pid directory is kept: the pid file then
  // simply fails to be written.
  pidDirectory = &GetString(attrPidDirectory, DEFAULT_LOGDIR);
  if (!isDirectory(*pidDirectory)) {
    LogPathNotDirectory(*pidDirectory, DEFAULT_LOGDIR, attrPidDirectory);
  }

  maxVirtualMemory = GetUint(attrMaxVirtualMemory, kDefaultMaxVirtualMemory) << 10;
  maxPhysMemory = GetUint(attrMaxPhysMemory, kDefaultMaxPhysMemory) << 10;
  multiProcessorFactor = GetUint(attrMultiProcessorFactor, kDefaultMultiProcessorFactor);

  checkSampleRateAndWindowSize(sampleRate, windowSize);
}

Bootstrap::~Bootstrap() = default;

void Bootstrap::setDefaults() {
  port = kDefaultPort;
  filter = &DEFAULT_FILTER;
  probePath = &DEFAULT_PROBEPATH;
  logDirectory = &DEFAULT_LOGDIR;
  pidDirectory = &DEFAULT_LOGDIR;
  windowSize = kDefaultWindowSize;
  sampleRate = kDefaultSampleRate;
  minCacheSize = kDefaultMinCacheSize;
  hostLifeTime = kDefaultHostLifeTime;
  maxVirtualMemory = kDefaultMaxVirtualMemory << 10;
  maxPhysMemory = kDefaultMaxPhysMemory << 10;
  multiProcessorFactor = kDefaultMultiProcessorFactor;
  logFilter = &DEFAULT_LOGFILTER;
}

uint32_t Bootstrap::GetUint(const OmUniString& key, uint32_t def) {
  const OmUniString* text = props.Get(key);
  if (text == nullptr) {
    LogScalarAttrNonExistant(key, static_cast<int>(def));
    return def;
  }
  const uint32_t value = text->AsUint32();
  if (value == 0) {
    LogScalarAttrBadValue(key, 0, static_cast<int>(def));
    return def;
  }
  return value;
}

const OmUniString& Bootstrap::GetString(const OmUniString& key, const OmUniString& def) {
  const OmUniString* text = props.Get(key);
  if (text == nullptr) {
    LogStringAttrNonExistant(key, def);
    return def;
  }
  return *text;
}

void Bootstrap::checkSampleRateAndWindowSize(uint32_t& rate, uint32_t& window) {
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

bool Bootstrap::setSampleRateAndWindowSize(uint32_t rate, uint32_t window) {
  checkSampleRateAndWindowSize(rate, window);
  sampleRate = rate;
  windowSize = window;
  return true;
}

bool Bootstrap::setPort(unsigned p) {
  port = p;
  return true;
}

bool Bootstrap::setConfig() {
  auto putNumber = [this](const OmUniString& key, uint32_t value) {
    props.Put(key, OmUniString::CreateFromUnsigned(value));
  };
  // The string fields may point into props itself: copy before replacing, then
  // point them at the new entries.
  auto putString = [this](const OmUniString& key, const OmUniString*& field) {
    const OmUniString value = *field;
    props.Put(key, value);
    field = props.Get(key);
  };
  putNumber(attrPort, port);
  putNumber(attrWindowSize, windowSize);
  putNumber(attrSampleRate, sampleRate);
  putNumber(attrHostLifeTime, hostLifeTime);
  putNumber(attrMinCacheSize, minCacheSize);
  putString(attrFilter, filter);
  putString(attrProbePath, probePath);
  putString(attrLogDirectory, logDirectory);
  putString(attrPidDirectory, pidDirectory);
  putString(attrLogFilter, logFilter);
  putNumber(attrMaxVirtualMemory, maxVirtualMemory >> 10);
  putNumber(attrMaxPhysMemory, maxPhysMemory >> 10);
  putNumber(attrMultiProcessorFactor, multiProcessorFactor);
  return props.Save(directory + bootstrapFile, "Written by quelmloadprobe");
}
