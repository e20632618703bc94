#ifndef QUELM_MEASURE_VMSTATFILTER_H_
#define QUELM_MEASURE_VMSTATFILTER_H_

#include <cstdint>

#include "measure/BaseFilter.h"

// Turns vmstat lines into samples for the cache. The first three lines of
// every run (two headers and the since-boot averages) are never samples; the
// header names tell where swpd, free, si, so and id are. Without them the
// old 16-column layout is assumed.
class VmstatFilter : public BaseFilter {
 public:
  static const OmUniString myFilterName;

  // The memory maxima are in KiB; they are raised when vmstat reports more.
  VmstatFilter(uint32_t maxVirtualMemory, uint32_t maxPhysMemory)
      : maxVirtualMemory(maxVirtualMemory), maxPhysMemory(maxPhysMemory) {}

  static bool matches(const OmUniString& name) { return name == myFilterName; }

  bool doFiltering(char* data, int length, int& idle) override;
  // Keeps the known columns: only the run's average and line count restart.
  void resetFilter() override;

  // The header test on one line; false at once when the columns are known.
  bool parseHeaders(char* line);

  bool areColumnsKnown() const { return columnsKnown; }
  uint32_t getMaxVirtualMemory() const { return maxVirtualMemory; }
  uint32_t getMaxPhysMemory() const { return maxPhysMemory; }

 private:
  // Records the columns if [line, end) names them all; updates columnsKnown.
  void testHeaderLine(const char* line, const char* end);
  // Clamps, caches and counts one sample; idle becomes its idle figure.
  void addSample(uint32_t swpd, uint32_t free, uint32_t si, uint32_t so, uint32_t id,
                 int& idle);
  // The end of a buffer: idle becomes the run's average when there is one.
  bool finish(int& idle) const;

  uint32_t sum = 0;
  uint32_t count = 0;
  uint32_t linesSeen = 0;
  uint32_t maxVirtualMemory;
  uint32_t maxPhysMemory;
  bool columnsKnown = false;
  uint32_t swpdColumn = 0;
  uint32_t freeColumn = 0;
  uint32_t siColumn = 0;
  uint32_t soColumn = 0;
  uint32_t idColumn = 0;
};

#endif  // QUELM_MEASURE_VMSTATFILTER_H_
