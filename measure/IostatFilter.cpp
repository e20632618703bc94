#include "measure/IostatFilter.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

// Lines to skip at the start, then the kinds of the two lines of each
// repeated group.
constexpr int nonrepeat = 3;
constexpr int kSkip = 1;
constexpr int kParse = 2;
constexpr int repeat[] = {kSkip, kParse};

}  // namespace

const OmUniString IostatFilter::myFilterName("iostatFilter");

bool IostatFilter::matches(const OmUniString& /*name*/) { return false; }

bool IostatFilter::doFiltering(char* data, int length, int& idle) {
  idle = -1;
  if (length < 1) return false;
  data[length] = '\0';

  char* line = data;
  for (int i = 0; i < nonrepeat; ++i) {
    char* nl = std::strchr(line, '\n');
    if (nl == nullptr) return false;
    line = nl + 1;
    if (*line == '\0') return false;
  }

  float sum = 0.0f;
  unsigned count = 0;
  while (*line != '\0') {
    for (int kind : repeat) {
      if (*line == '\0') break;
      char* nl = std::strchr(line, '\n');
      if (nl == nullptr) return false;
      if (kind == kParse) {
        float user = 0, nice = 0, system = 0, cpuIdle = 0;
        if (std::sscanf(line, "%f%f%f%f", &user, &nice, &system, &cpuIdle) != 4) return false;
        if (cpuIdle < 0.0f) cpuIdle = 0.0f;
        if (cpuIdle > 100.0f) cpuIdle = 100.0f;
        sum += cpuIdle;
        ++count;
      } else if (kind != kSkip) {
        return false;
      }
      line = nl + 1;
    }
  }

  if (count == 0) return false;
  idle = static_cast<int>(std::nearbyint(sum / static_cast<float>(count)));
  return true;
}
