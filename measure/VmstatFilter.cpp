#include "measure/VmstatFilter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "measure/Cache.h"

namespace {

constexpr char kDelimiters[] = " \t\n";
// vmstat's two header lines and its since-boot line.
constexpr uint32_t kHeaderLines = 3;
constexpr uint32_t kColumnsNeeded = 5;

}  // namespace

const OmUniString VmstatFilter::myFilterName("vmstatFilter");

void VmstatFilter::resetFilter() {
  sum = 0;
  count = 0;
  linesSeen = 0;
}

bool VmstatFilter::parseHeaders(char* line) {
  if (columnsKnown) return false;
  const char* end = std::strchr(line, '\n');
  if (end == nullptr) end = line + std::strlen(line);
  testHeaderLine(line, end);
  return columnsKnown;
}

void VmstatFilter::testHeaderLine(const char* line, const char* end) {
  const std::string_view text(line, static_cast<size_t>(end - line));
  for (const char* name : {"swpd", "free", "so", "si", "id"}) {
    if (text.find(name) == std::string_view::npos) {
      columnsKnown = false;
      return;
    }
  }

  uint32_t matched = 0;
  uint32_t position = 0;
  size_t at = text.find_first_not_of(kDelimiters);
  while (at != std::string_view::npos) {
    size_t stop = text.find_first_of(kDelimiters, at);
    if (stop == std::string_view::npos) stop = text.size();
    const std::string_view token = text.substr(at, stop - at);
    uint32_t* column = nullptr;
    if (token == "swpd") column = &swpdColumn;
    else if (token == "free") column = &freeColumn;
    else if (token == "si") column = &siColumn;
    else if (token == "so") column = &soColumn;
    else if (token == "id") column = &idColumn;
    if (column != nullptr) {
      *column = position;
      ++matched;
    }
    ++position;
    at = text.find_first_not_of(kDelimiters, stop);
  }
  columnsKnown = matched >= kColumnsNeeded;
}

void VmstatFilter::addSample(uint32_t swpd, uint32_t free, uint32_t si, uint32_t so,
                             uint32_t id, int& idleOut) {
  // Negative figures count as large ones here.
  const uint32_t idle = id > 100 ? 100 : id;
  // The output holds the latest sample until the end of the buffer turns it
  // into the average; a run that stops after a sample (named columns) hands
  // that sample to the child manager.
  idleOut = static_cast<int>(idle);

  uint32_t freeVirtual = 0;
  if (swpd > maxVirtualMemory) {
    LogVMemOutOfRange(static_cast<int>(swpd), static_cast<int>(maxVirtualMemory));
    maxVirtualMemory = swpd;
  } else {
    freeVirtual = maxVirtualMemory - swpd;
  }
  if (free > maxPhysMemory) maxPhysMemory = free;

  myCache->addToCache(idle, freeVirtual, free, si, so);
  sum += idle;
  ++count;
}

bool VmstatFilter::finish(int& idle) const {
  if (count != 0) {
    idle = static_cast<int>(std::nearbyint(static_cast<float>(sum) / static_cast<float>(count)));
  }
  return true;
}

bool VmstatFilter::doFiltering(char* data, int length, int& idle) {
  idle = -1;
  if (length < 1) return false;
  const char* const end = data + length;
  char* line = data;

  while (linesSeen < kHeaderLines) {
    char* nl = std::strchr(line, '\n');
    if (nl == nullptr) return false;
    if (!columnsKnown) testHeaderLine(line, nl);
    ++linesSeen;
    line = nl + 1;
    if (line >= end) return finish(idle);
  }

  while (line < end && *line != '\0') {
    if (columnsKnown) {
      // The tokenizer cuts the text up to the end of the buffer, so the
      // newline search below fails and the run ends after this one sample;
      // the tool is restarted for the next.
      long swpd = 0, free = 0, si = 0, so = 0, id = 0;
      char* save = nullptr;
      uint32_t position = 0;
      for (char* token = strtok_r(line, kDelimiters, &save); token != nullptr;
           token = strtok_r(nullptr, kDelimiters, &save), ++position) {
        const long value = std::strtol(token, nullptr, 10);
        if (position == swpdColumn) swpd = value;
        if (position == freeColumn) free = value;
        if (position == siColumn) si = value;
        if (position == soColumn) so = value;
        if (position == idColumn) id = value;
      }
      addSample(static_cast<uint32_t>(swpd), static_cast<uint32_t>(free),
                static_cast<uint32_t>(si), static_cast<uint32_t>(so), static_cast<uint32_t>(id), idle);
    } else {
      // r b w swpd free buff cache si so bi bo in cs us sy id
      int f[16];
      const int got = std::sscanf(line, "%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", &f[0], &f[1], &f[2],
                                  &f[3], &f[4], &f[5], &f[6], &f[7], &f[8], &f[9], &f[10], &f[11],
                                  &f[12], &f[13], &f[14], &f[15]);
      if (got < 16) {
        LogDataNotRecognised(mySettings->probePath, OmUniString(line));
        refused = true;
        return false;
      }
      addSample(static_cast<uint32_t>(f[3]), static_cast<uint32_t>(f[4]),
                static_cast<uint32_t>(f[7]), static_cast<uint32_t>(f[8]),
                static_cast<uint32_t>(f[15]), idle);
    }
    char* nl = std::strchr(line, '\n');
    if (nl == nullptr) return false;
    line = nl + 1;
  }
  return finish(idle);
}
