#include "measure/CgroupSampler.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <vector>

namespace {

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash);
}

bool hasWord(const std::string& list, const std::string& word) {
  std::istringstream words(list);
  for (std::string w; std::getline(words, w, ',');) {
    if (w == word) return true;
  }
  return false;
}

// In v1 every controller has its own tree: the same cgroup path below
// another controller's mount point. A cgroup's root is the highest folder
// whose parent is no cgroup any more.
std::string v1Sibling(const std::string& folder, const char* controller) {
  std::string root = folder;
  while (root.size() > 1 && exists(parentOf(root) + "/cgroup.procs")) root = parentOf(root);
  return parentOf(root) + "/" + controller + folder.substr(root.size());
}

}  // namespace

std::string CgroupSampler::ownFolder() {
  std::string v1Path, v2Path;
  bool haveV1 = false, haveV2 = false;
  std::ifstream cgroups("/proc/self/cgroup");
  for (std::string line; std::getline(cgroups, line);) {
    // "4:cpu,cpuacct:/path" or "0::/path".
    const size_t a = line.find(':'), b = line.find(':', a + 1);
    if (a == std::string::npos || b == std::string::npos) continue;
    const std::string controllers = line.substr(a + 1, b - a - 1);
    if (controllers.empty()) {
      v2Path = line.substr(b + 1);
      haveV2 = true;
    } else if (hasWord(controllers, "cpu")) {
      v1Path = line.substr(b + 1);
      haveV1 = true;
    }
  }
  std::string v1Mount, v2Mount;
  std::ifstream mounts("/proc/self/mounts");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string device, point, type, options;
    fields >> device >> point >> type >> options;
    if (type == "cgroup2" && v2Mount.empty()) v2Mount = point;
    if (type == "cgroup" && hasWord(options, "cpu") && v1Mount.empty()) v1Mount = point;
  }
  auto join = [](const std::string& mount, const std::string& path) {
    return path == "/" ? mount : mount + path;
  };
  if (haveV1 && !v1Mount.empty()) return join(v1Mount, v1Path);
  if (haveV2 && !v2Mount.empty()) return join(v2Mount, v2Path);
  return std::string();
}

bool CgroupSampler::open(const std::string& folder, std::string& why) {
  primed = false;
  cpuFolder = folder;
  while (cpuFolder.size() > 1 && cpuFolder.back() == '/') cpuFolder.pop_back();
  v2 = !exists(cpuFolder + "/cpu.cfs_quota_us");
  if (v2) {
    cpuacctFolder = memoryFolder = cpuFolder;
  } else {
    cpuacctFolder = exists(cpuFolder + "/cpuacct.usage") ? cpuFolder : v1Sibling(cpuFolder, "cpuacct");
    memoryFolder = v1Sibling(cpuFolder, "memory");
  }
  uint64_t usage = 0;
  if (!readUsageUs(usage)) {
    why = v2 ? "no readable cpu.stat usage_usec" : "no readable cpuacct.usage in " + cpuacctFolder;
    return false;
  }
  return true;
}

bool CgroupSampler::readUsageUs(uint64_t& usec) const {
  if (v2) return readKeyedValue(cpuFolder + "/cpu.stat", "usage_usec", usec);
  uint64_t nsec = 0;
  if (!readNumber(cpuacctFolder + "/cpuacct.usage", nsec)) return false;
  usec = nsec / 1000;
  return true;
}

double CgroupSampler::quotaProcessors() const {
  uint64_t quota = 0, period = 0;
  if (v2) {
    std::ifstream in(cpuFolder + "/cpu.max");
    std::string q;
    if (!(in >> q >> period) || q == "max") return 0;
    quota = std::strtoull(q.c_str(), nullptr, 10);
  } else {
    // A quota of -1 (none) does not read as a number.
    std::ifstream in(cpuFolder + "/cpu.cfs_quota_us");
    long long q = -1;
    if (!(in >> q) || q <= 0 || !readNumber(cpuFolder + "/cpu.cfs_period_us", period)) return 0;
    quota = static_cast<uint64_t>(q);
  }
  return period == 0 ? 0 : static_cast<double>(quota) / static_cast<double>(period);
}

uint64_t CgroupSampler::memoryLimit(const ProcSampler::Memory& host) const {
  uint64_t bytes = 0;
  const std::string file = memoryFolder + (v2 ? "/memory.max" : "/memory.limit_in_bytes");
  if (!readNumber(file, bytes)) return 0;  // "max", or no memory controller here
  const uint64_t kib = bytes >> 10;
  return host.total != 0 && kib >= host.total ? 0 : kib;
}

bool CgroupSampler::sample(double now, const ProcSampler::Memory& host, LoadReading& r) {
  uint64_t usage = 0;
  if (!readUsageUs(usage)) {
    primed = false;
    return false;
  }
  const bool had = primed;
  const double seconds = now - lastTime;
  const uint64_t used = usage - lastUsage;
  primed = true;
  lastTime = now;
  lastUsage = usage;
  if (!had || seconds <= 0) return false;

  double capacity = quotaProcessors();
  if (capacity <= 0) capacity = ProcSampler::onlineProcessors();
  const double busy = static_cast<double>(used) / 1e6 / (seconds * capacity) * 100.0;
  r.idle = static_cast<uint32_t>(std::lround(std::clamp(100.0 - busy, 0.0, 100.0)));

  r.memFree = host.free;
  const uint64_t limit = memoryLimit(host);
  uint64_t current = 0;
  if (limit != 0 && readNumber(memoryFolder + (v2 ? "/memory.current" : "/memory.usage_in_bytes"), current)) {
    current >>= 10;
    r.memFree = current < limit ? limit - current : 0;
  }
  return true;
}
