#ifndef QUELM_MEASURE_IOSTATFILTER_H_
#define QUELM_MEASURE_IOSTATFILTER_H_

#include "measure/BaseFilter.h"

// Reads the idle percentage from iostat's cpu lines. Never selected; it adds
// nothing to the cache.
class IostatFilter : public BaseFilter {
 public:
  static const OmUniString myFilterName;

  // Always false: iostat is not supported.
  static bool matches(const OmUniString& name);

  bool doFiltering(char* data, int length, int& idle) override;
  void resetFilter() override {}
};

#endif  // QUELM_MEASURE_IOSTATFILTER_H_
