#include "agent/CommandLine.h"

#include <cstdio>
#include <string_view>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Logging.h"
#include "agent/Settings.h"
#include "foundation/log/OmLog.h"
#include "measure/BaseFilter.h"

namespace {

const char kUsage[] =
    "Usage: quelmloadprobe [FOLDER [PROCESSORS]]\n"
    "       quelmloadprobe --check-config FOLDER\n"
    "       quelmloadprobe --help | --version\n"
    "\n"
    "Runs the load probe with FOLDER/quelmloadbalancing.properties (default: the\n"
    "current folder); PROCESSORS is the processor count of the speed figure.\n"
    "\n"
    "  --check-config FOLDER  read the properties as start-up does, print every\n"
    "                         message on standard error and every key's effective\n"
    "                         value on standard output; exit 0 when nothing was\n"
    "                         wrong, 1 otherwise\n"
    "  --help                 print this text\n"
    "  --version              print the version\n"
    "\n"
    "A folder named like a flag is given with its path: quelmloadprobe ./--help\n";

// Start-up's reading of the file, and of what it names, without serving.
int checkConfig(const char* folder) {
  Bootstrap bootstrap(OmUniString::FromUtf8(folder), 1, true);
  mySettings = &bootstrap.settings();
  const Settings& values = bootstrap.settings();
  // An unknown filter stops start-up; its message is the check's too.
  const BaseFilter* filter =
      BaseFilter::createFilter(values.filter, values.maxVirtualMemory, values.maxPhysMemory);
  const bool clean = filter != nullptr && OmLog::MessageCount() == 0;
  delete filter;
  if (OmLog* log = OmLog::Current()) log->Flush();
  for (const SettingKey& key : kSettingKeys) {
    const std::string value = key.number != nullptr ? std::to_string(key.fileValue(values))
                                                    : (values.*key.text).AsUtf8();
    std::printf("%s=%s\n", key.name, value.c_str());
  }
  std::fflush(stdout);
  mySettings = nullptr;
  delete bootLogger;
  bootLogger = nullptr;
  return clean ? 0 : 1;
}

}  // namespace

int runCommandLineFlag(int argc, char** argv) {
  if (argc < 2) return -1;
  const std::string_view flag = argv[1];
  if (flag == "--help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (flag == "--version") {
    std::printf("quelmloadprobe %s\n", QUELM_VERSION);
    return 0;
  }
  if (flag == "--check-config") {
    if (argc != 3) {
      std::fputs(kUsage, stderr);
      return 1;
    }
    return checkConfig(argv[2]);
  }
  return -1;
}
