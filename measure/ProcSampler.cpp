#include "measure/ProcSampler.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

bool readKeyedValue(const std::string& path, const char* key, uint64_t& value) {
  std::ifstream in(path);
  const size_t keyLength = std::strlen(key);
  for (std::string line; std::getline(in, line);) {
    // "MemFree:   123 kB" and "pswpin 12" alike.
    if (line.compare(0, keyLength, key) != 0) continue;
    const char next = line.size() > keyLength ? line[keyLength] : '\0';
    if (next != ' ' && next != ':' && next != '\t') continue;
    const char* digits = line.c_str() + keyLength + 1;
    while (*digits == ' ' || *digits == '\t') ++digits;
    char* end = nullptr;
    value = std::strtoull(digits, &end, 10);
    return end != digits;
  }
  return false;
}

bool readNumber(const std::string& path, uint64_t& value) {
  std::ifstream in(path);
  std::string word;
  if (!(in >> word)) return false;
  char* end = nullptr;
  value = std::strtoull(word.c_str(), &end, 10);
  return end != word.c_str() && *end == '\0';
}

unsigned ProcSampler::onlineProcessors() {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<unsigned>(n) : 1;
}

// vmstat's division: user and nice, system, irq and softirq, idle, iowait
// and steal make the whole; guest time is already inside user.
bool ProcSampler::readCpu(uint64_t& idle, uint64_t& total) const {
  std::ifstream in(root + "/stat");
  std::string label;
  uint64_t f[8] = {};
  if (!(in >> label) || label != "cpu") return false;
  for (uint64_t& field : f) {
    if (!(in >> field)) return false;
  }
  idle = f[3];
  total = f[0] + f[1] + f[2] + f[3] + f[4] + f[5] + f[6] + f[7];
  return true;
}

bool ProcSampler::readSwapPages(uint64_t& in, uint64_t& out) const {
  return readKeyedValue(root + "/vmstat", "pswpin", in) && readKeyedValue(root + "/vmstat", "pswpout", out);
}

bool ProcSampler::readMemory(Memory& m) const {
  const std::string path = root + "/meminfo";
  return readKeyedValue(path, "MemTotal", m.total) && readKeyedValue(path, "MemFree", m.free) &&
         readKeyedValue(path, "SwapTotal", m.swapTotal) && readKeyedValue(path, "SwapFree", m.swapFree);
}

bool ProcSampler::sample(double now, LoadReading& r) {
  uint64_t idle = 0, total = 0, in = 0, out = 0;
  Memory memory;
  if (!readCpu(idle, total) || !readMemory(memory)) return false;
  if (!readSwapPages(in, out)) in = out = 0;  // a kernel without swap counters
  const bool had = primed;
  const double seconds = now - lastTime;
  const uint64_t dIdle = idle - lastIdle, dTotal = total - lastTotal;
  const uint64_t dIn = in - lastIn, dOut = out - lastOut;
  primed = true;
  lastTime = now;
  lastIdle = idle;
  lastTotal = total;
  lastIn = in;
  lastOut = out;
  if (!had || dTotal == 0 || seconds <= 0) return false;
  r.idle = static_cast<uint32_t>((100 * dIdle + dTotal / 2) / dTotal);
  r.memFree = memory.free;
  r.swapUsed = memory.swapTotal > memory.swapFree ? memory.swapTotal - memory.swapFree : 0;
  const double pageKiB = static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
  r.swapIn = static_cast<uint32_t>(static_cast<double>(dIn) * pageKiB / seconds + 0.5);
  r.swapOut = static_cast<uint32_t>(static_cast<double>(dOut) * pageKiB / seconds + 0.5);
  return true;
}
