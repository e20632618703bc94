#include "agent/Bootstrap.h"

#include <string>

#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/Messages.h"
#include "agent/RunAs.h"
#include "foundation/log/OmLog.h"
#include "foundation/string/OmCodeset.h"
#include "foundation/string/OmFile.h"

const OmUniString Bootstrap::bootstrapFile("/quelmloadbalancing.properties");
const OmUniString Bootstrap::attrPort(kSettingKeys[SettingKey::Port].name);
const OmUniString Bootstrap::attrFilter(kSettingKeys[SettingKey::Filter].name);
const OmUniString Bootstrap::attrProbePath(kSettingKeys[SettingKey::ProbePath].name);
const OmUniString Bootstrap::attrLogDirectory(kSettingKeys[SettingKey::LogDirectory].name);
const OmUniString Bootstrap::attrPidDirectory(kSettingKeys[SettingKey::PidDirectory].name);
const OmUniString Bootstrap::attrWindowSize(kSettingKeys[SettingKey::WindowSize].name);
const OmUniString Bootstrap::attrSampleRate(kSettingKeys[SettingKey::SampleRate].name);
const OmUniString Bootstrap::attrHostLifeTime(kSettingKeys[SettingKey::HostLifeTime].name);
const OmUniString Bootstrap::attrMinCacheSize(kSettingKeys[SettingKey::MinCacheSize].name);
const OmUniString Bootstrap::attrLogFilter(kSettingKeys[SettingKey::LogFilter].name);
const OmUniString Bootstrap::attrMaxVirtualMemory(kSettingKeys[SettingKey::MaxVirtualMemory].name);
const OmUniString Bootstrap::attrMaxPhysMemory(kSettingKeys[SettingKey::MaxPhysMemory].name);
const OmUniString Bootstrap::attrMultiProcessorFactor(kSettingKeys[SettingKey::MultiProcessorFactor].name);
const OmUniString Bootstrap::DEFAULT_FILTER(kSettingKeys[SettingKey::Filter].defaultText);
const OmUniString Bootstrap::DEFAULT_PROBEPATH(kSettingKeys[SettingKey::ProbePath].defaultText);
const OmUniString Bootstrap::DEFAULT_LOGDIR(kSettingKeys[SettingKey::LogDirectory].defaultText);
const OmUniString Bootstrap::DEFAULT_LOGFILTER(kSettingKeys[SettingKey::LogFilter].defaultText);

namespace {

bool isDirectory(const OmUniString& path) { return OmFile::IsDirectory(path.AsUtf8().c_str()); }

OmUniString keyName(SettingKey::Id id) { return OmUniString(kSettingKeys[id].name); }

}  // namespace

namespace {

OmUniString everyMessageToConsole() {
  return OmUniString("*/*/*:") + OmUniString(OmLog::GetStdErrStr());
}

}  // namespace

Bootstrap::Bootstrap(const OmUniString& dir, unsigned procs, bool check)
    : directory(dir), processors(static_cast<int32_t>(procs)), checkOnly(check) {
  // Without a directory nothing is loaded and the defaults stand.
  if (directory.IsEmpty()) return;

  const OmUniString path = directory + bootstrapFile;
  if (!props.Load(path)) {
    bootLogger = new Logging(values.logDirectory, checkOnly ? everyMessageToConsole() : values.logFilter);
    LogPropsNotFound(path);
    return;
  }

  // The file names its own character set. Read as ASCII first, which every
  // set usable for the file agrees with, to find it; then read in it.
  const OmUniString* named = props.Get(keyName(SettingKey::PropertiesEncoding));
  const OmUniString encodingName = named != nullptr ? *named : OmUniString();
  if (named != nullptr && kSettingKeys[SettingKey::PropertiesEncoding].validText(encodingName)) {
    encoding = OmCodeset::Find(encodingName);
    props.Clear();
    props.Load(path, encoding);
  }

  // The log set-up needs the log directory and filter first; complaints about
  // them are reported once it exists.
  const OmUniString* logDir = props.Get(keyName(SettingKey::LogDirectory));
  const OmUniString* badLogDir = nullptr;
  if (logDir != nullptr) {
    if (isDirectory(*logDir)) {
      values.logDirectory = *logDir;
    } else {
      badLogDir = logDir;
    }
  }
  const OmUniString* filterText = props.Get(keyName(SettingKey::LogFilter));
  if (filterText != nullptr) values.logFilter = *filterText;

  bootLogger = new Logging(values.logDirectory, checkOnly ? everyMessageToConsole() : values.logFilter);

  if (props.BadLine() != 0) LogPropsMalformed(path, OmUniString(encoding->Name()), props.BadLine());
  const OmUniString defaultDir(kSettingKeys[SettingKey::LogDirectory].defaultText);
  if (logDir == nullptr) LogStringAttrNonExistant(keyName(SettingKey::LogDirectory), defaultDir);
  if (badLogDir != nullptr) LogPathNotDirectory(*badLogDir, defaultDir, keyName(SettingKey::LogDirectory));
  if (filterText == nullptr) LogStringAttrNonExistant(keyName(SettingKey::LogFilter), values.logFilter);

  for (SettingKey::Id id : {SettingKey::Port, SettingKey::WindowSize, SettingKey::SampleRate, SettingKey::HostLifeTime, SettingKey::MinCacheSize}) {
    kSettingKeys[id].set(values, GetUint(id));
  }
  values.filter = GetString(SettingKey::Filter);

  const OmUniString probePath = GetString(SettingKey::ProbePath);
  const long space = probePath.Search(' ');
  const OmUniString program = space < 0 ? probePath : probePath.SubString(0, space);
  if (OmFile::DoesPathExist(program.AsUtf8().c_str())) {
    values.probePath = probePath;
  } else {
    LogPathNonExistant(program, values.probePath, keyName(SettingKey::ProbePath));
  }

  // Unlike the log directory, a bad pid directory is kept: the pid file then
  // simply fails to be written.
  values.pidDirectory = GetString(SettingKey::PidDirectory);
  if (!isDirectory(values.pidDirectory)) {
    LogPathNotDirectory(values.pidDirectory, defaultDir, keyName(SettingKey::PidDirectory));
  }

  for (SettingKey::Id id : {SettingKey::MaxVirtualMemory, SettingKey::MaxPhysMemory, SettingKey::MultiProcessorFactor}) {
    kSettingKeys[id].set(values, GetUint(id));
  }
  for (unsigned id = 0; id < SettingKey::Count; ++id) {
    const SettingKey& key = kSettingKeys[id];
    if (!key.optional) continue;
    if (key.number != nullptr) {
      key.set(values, GetOptionalUint(static_cast<SettingKey::Id>(id)));
    } else {
      key.set(values, GetOptionalString(static_cast<SettingKey::Id>(id)));
    }
  }
  // Even when its own line was unreadable, the file was read in that set.
  if (encoding != nullptr) values.propertiesEncoding = encodingName;
  // Only 0 is a bad port unless asked for more: a larger number would
  // otherwise be cut to its low 16 bits.
  if (values.strictPort != 0 && values.port > 65535) {
    const SettingKey& port = kSettingKeys[SettingKey::Port];
    LogScalarAttrBadValue(keyName(SettingKey::Port), static_cast<int>(values.port), static_cast<int>(port.defaultNumber));
    values.port = port.defaultNumber;
  }
  Settings::applySampleRateRule(values.sampleRate, values.windowSize);
  resolveRunAs(values);
}

uint32_t Bootstrap::GetUint(SettingKey::Id id) {
  const SettingKey& key = kSettingKeys[id];
  const OmUniString* text = props.Get(keyName(id));
  if (text == nullptr) {
    LogScalarAttrNonExistant(keyName(id), static_cast<int>(key.defaultNumber));
    return key.defaultNumber;
  }
  const uint32_t value = text->AsUint32();
  if (value == 0) {
    LogScalarAttrBadValue(keyName(id), 0, static_cast<int>(key.defaultNumber));
    return key.defaultNumber;
  }
  return value;
}

uint32_t Bootstrap::GetOptionalUint(SettingKey::Id id) {
  const SettingKey& key = kSettingKeys[id];
  const OmUniString* text = props.Get(keyName(id));
  if (text == nullptr) return key.defaultNumber;
  // Here 0 is a good value, so the text itself must be a number in range.
  const std::string digits = text->AsUtf8();
  const bool number = !digits.empty() && digits.size() <= 10 &&
                      digits.find_first_not_of("0123456789") == std::string::npos;
  if (number && std::stoull(digits) <= key.maxNumber) return static_cast<uint32_t>(std::stoull(digits));
  LogScalarAttrBadValue(keyName(id), static_cast<int>(text->AsUint32()), static_cast<int>(key.defaultNumber));
  return key.defaultNumber;
}

OmUniString Bootstrap::GetOptionalString(SettingKey::Id id) {
  const SettingKey& key = kSettingKeys[id];
  const OmUniString def(key.defaultText);
  const OmUniString* text = props.Get(keyName(id));
  if (text == nullptr) return def;
  if (key.validText == nullptr || key.validText(*text)) return *text;
  LogStringAttrBadValue(keyName(id), *text, def);
  return def;
}

OmUniString Bootstrap::GetString(SettingKey::Id id) {
  const OmUniString* text = props.Get(keyName(id));
  if (text != nullptr) return *text;
  const OmUniString def(kSettingKeys[id].defaultText);
  LogStringAttrNonExistant(keyName(id), def);
  return def;
}

bool Bootstrap::setSampleRateAndWindowSize(uint32_t rate, uint32_t window) {
  Settings::applySampleRateRule(rate, window);
  values.sampleRate = rate;
  values.windowSize = window;
  return true;
}

bool Bootstrap::setPort(unsigned p) {
  values.port = p;
  return true;
}

namespace {

bool isDefault(const SettingKey& key, const Settings& values) {
  if (key.number != nullptr) return key.fileValue(values) == key.defaultNumber;
  return values.*key.text == OmUniString(key.defaultText);
}

}  // namespace

void Bootstrap::useMachineMemory(uint32_t maxVirtualKiB, uint32_t maxPhysKiB) {
  if (!machineMemory) {
    fileMaxVirtual = values.maxVirtualMemory;
    fileMaxPhys = values.maxPhysMemory;
    machineMemory = true;
  }
  values.maxVirtualMemory = maxVirtualKiB;
  values.maxPhysMemory = maxPhysKiB;
}

bool Bootstrap::setConfig() {
  Settings written = values;
  if (machineMemory) {
    written.maxVirtualMemory = fileMaxVirtual;
    written.maxPhysMemory = fileMaxPhys;
  }
  for (const SettingKey& key : kSettingKeys) {
    const OmUniString name(key.name);
    // A file without an optional key at its default is written as it was.
    if (key.optional && props.Get(name) == nullptr && isDefault(key, written)) continue;
    if (key.number != nullptr) {
      props.Put(name, OmUniString::CreateFromUnsigned(key.fileValue(written)));
    } else {
      props.Put(name, written.*key.text);
    }
  }
  return props.Save(directory + bootstrapFile, "Written by quelmloadprobe", encoding);
}
