#include "measure/BaseFilter.h"

#include "agent/Messages.h"
#include "measure/SarFilter.h"
#include "measure/VmstatFilter.h"

BaseFilter::~BaseFilter() = default;

int BaseFilter::adjustCount() { return 1; }

BaseFilter* BaseFilter::createFilter(const OmUniString& name, uint32_t maxVirtualMemory,
                                     uint32_t maxPhysMemory) {
  if (name == VmstatFilter::myFilterName) return new VmstatFilter(maxVirtualMemory, maxPhysMemory);
  // The iostat and sar filters are not offered on this platform.
  if (SarFilter::matches(name)) return new SarFilter(maxVirtualMemory, maxPhysMemory);
  LogFilterNotRecognised(name);
  return nullptr;
}
