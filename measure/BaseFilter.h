#ifndef QUELM_MEASURE_BASEFILTER_H_
#define QUELM_MEASURE_BASEFILTER_H_

#include <cstdint>

#include "foundation/string/OmUniString.h"

// Turns the measuring tool's output into load samples. The child manager
// hands each read to doFiltering and calls resetFilter at every tool restart.
class BaseFilter {
 public:
  BaseFilter() = default;
  virtual ~BaseFilter();
  BaseFilter(const BaseFilter&) = delete;
  BaseFilter& operator=(const BaseFilter&) = delete;

  // Parses length bytes of data; data[length] must exist and be 0. idle is -1
  // unless the run so far has an average idle percentage. True when the
  // buffer was consumed without error; false makes the caller restart the tool.
  virtual bool doFiltering(char* data, int length, int& idle) = 0;
  // Samples to add to the tool's count: its first line is discarded.
  virtual int adjustCount();
  // Forgets the running average at the start of a tool run.
  virtual void resetFilter() = 0;

  // Whether output was refused as unreadable since the last call (not a run
  // the filter merely ended early, which the vmstat filter does by design).
  bool takeRefusal() {
    const bool was = refused;
    refused = false;
    return was;
  }

  // A new filter of that name (memory maxima in KiB), owned by the caller;
  // null, with a logged message, when the name is not recognised.
  static BaseFilter* createFilter(const OmUniString& name, uint32_t maxVirtualMemory,
                                  uint32_t maxPhysMemory);

 protected:
  bool refused = false;
};

#endif  // QUELM_MEASURE_BASEFILTER_H_
