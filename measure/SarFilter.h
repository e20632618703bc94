#ifndef QUELM_MEASURE_SARFILTER_H_
#define QUELM_MEASURE_SARFILTER_H_

#include <cstdint>

#include "measure/BaseFilter.h"

// Placeholder for sar output: it parses nothing and is never selected.
class SarFilter : public BaseFilter {
 public:
  static const OmUniString myFilterName;

  // The memory maxima would matter to a working sar filter.
  SarFilter(uint32_t /*maxVirtualMemory*/, uint32_t /*maxPhysMemory*/) {}

  // Always false: sar is not supported.
  static bool matches(const OmUniString& name);

  bool doFiltering(char* data, int length, int& idle) override;
  void resetFilter() override {}
};

#endif  // QUELM_MEASURE_SARFILTER_H_
