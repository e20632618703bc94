// Any tool output through the vmstat filter, in several reads as the child
// manager hands them over: each read is a zero-terminated copy with its spare
// byte, and a failed read restarts the run as a tool restart does.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "agent/Globals.h"
#include "agent/MyLogger.h"
#include "agent/Settings.h"
#include "foundation/log/OmLog.h"
#include "foundation/string/OmUniString.h"
#include "measure/Cache.h"
#include "measure/VmstatFilter.h"

namespace {

// Separates the reads within one input (never part of vmstat's output).
constexpr uint8_t kReadSeparator = 0xFE;
// Before a read, forces a new tool run even after a successful read.
constexpr uint8_t kRestartMark = 0xFD;
constexpr uint32_t kMinCacheSize = 10;
constexpr uint32_t kMaxVirtual = 768u << 10;
constexpr uint32_t kMaxPhys = 256u << 10;

void check(bool ok) {
  if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Messages are formatted as in the probe but go nowhere.
  static const Settings settings;
  mySettings = &settings;
  OmLog::InitLogs(&mylog, OmUniString("/tmp"));
  mylog.SetupCSFilters({});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Cache cache(kMinCacheSize, kMaxVirtual, kMaxPhys);
  myCache = &cache;
  VmstatFilter filter(kMaxVirtual, kMaxPhys);

  size_t at = 0;
  bool more = true;
  while (more) {
    const void* mark = size > at ? std::memchr(data + at, kReadSeparator, size - at) : nullptr;
    const size_t stop = mark != nullptr ? static_cast<size_t>(static_cast<const uint8_t*>(mark) - data) : size;
    more = mark != nullptr;
    if (at < stop && data[at] == kRestartMark) {
      filter.resetFilter();
      ++at;
    }

    const size_t length = stop - at;
    std::unique_ptr<char[]> buffer(new char[length + 1]);
    if (length > 0) std::memcpy(buffer.get(), data + at, length);
    buffer[length] = '\0';
    int idle = 12345;
    const bool ok = filter.doFiltering(buffer.get(), static_cast<int>(length), idle);
    check(idle == -1 || (idle >= 0 && idle <= 100));
    if (length == 0) check(!ok && idle == -1);
    if (!ok) filter.resetFilter();

    // Memory maxima only grow; the cache keeps to its size.
    check(filter.getMaxVirtualMemory() >= kMaxVirtual);
    check(filter.getMaxPhysMemory() >= kMaxPhys);
    check(cache.getNumberOfSamples() <= cache.getCacheSize());
    check(cache.getCurrentIdle() <= 100);
    at = stop + 1;
  }

  myCache = nullptr;
  return 0;
}
