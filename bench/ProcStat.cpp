#include "ProcStat.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

// The number after "key:" on a line of /proc/<pid>/status.
long Field(const std::string& status, const char* key) {
  std::string needle(1, '\n');
  needle.append(key).push_back(':');
  const size_t at = status.find(needle);
  if (at == std::string::npos) return 0;
  return std::strtol(status.c_str() + at + needle.size(), nullptr, 10);
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

ProcSample ReadProcSample(pid_t pid) {
  ProcSample s;
  const std::string base = "/proc/" + std::to_string(pid);
  const std::string stat = Slurp(base + "/stat");
  // The command name may hold spaces: fields are counted after its ')'.
  const size_t close = stat.rfind(')');
  if (close == std::string::npos) return s;
  std::istringstream rest(stat.substr(close + 2));
  std::string field;
  rest >> s.state;
  // Fields 4..13 skipped; 14 utime, 15 stime.
  for (int i = 4; i <= 13; ++i) rest >> field;
  unsigned long utime = 0, stime = 0;
  rest >> utime >> stime;
  s.cpuSeconds = static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));

  std::string status(1, '\n');
  status += Slurp(base + "/status");
  s.hwmKiB = Field(status, "VmHWM");
  s.rssKiB = Field(status, "VmRSS");
  s.contextSwitches = Field(status, "voluntary_ctxt_switches") +
                      Field(status, "nonvoluntary_ctxt_switches");
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(base + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++s.openDescriptors;
  }
  s.valid = true;
  return s;
}

long long FolderBytes(const std::string& folder) {
  long long total = 0;
  std::error_code ec;
  for (auto it = std::filesystem::directory_iterator(folder, ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    std::error_code sizeError;
    const auto size = it->file_size(sizeError);
    if (!sizeError) total += static_cast<long long>(size);
  }
  return total;
}
