#include "measure/SarFilter.h"

const OmUniString SarFilter::myFilterName("sarFilter");

bool SarFilter::matches(const OmUniString& /*name*/) { return false; }

bool SarFilter::doFiltering(char* /*data*/, int /*length*/, int& idle) {
  idle = -1;
  return false;
}
