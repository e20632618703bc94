#ifndef QUELM_HOSTS_SETTINGS_H_
#define QUELM_HOSTS_SETTINGS_H_

#include <cstdint>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "measure/Bogomips.h"

// The configuration and speed figure as load distribution sees them. Each
// single instance may be missing (in tests, or early in start-up), so each
// value falls back to the configuration's built-in default.
namespace hostsettings {

inline uint32_t sampleRate() { return myBootstrap ? myBootstrap->getSampleRate() : 30; }
inline uint32_t windowSize() { return myBootstrap ? myBootstrap->getWindowSize() : 120; }
inline uint32_t hostLifeTime() { return myBootstrap ? myBootstrap->getHostLifeTime() : 86400; }
// KiB.
inline uint32_t maxVirtualMemory() {
  return myBootstrap ? myBootstrap->getMaxVirtualMemory() : 768u << 10;
}
inline uint32_t maxPhysMemory() {
  return myBootstrap ? myBootstrap->getMaxPhysMemory() : 256u << 10;
}
inline int64_t bogomips() { return myBogomips ? myBogomips->getBogomips() : 0; }

}  // namespace hostsettings

#endif  // QUELM_HOSTS_SETTINGS_H_
