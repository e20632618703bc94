#include "measure/Bogomips.h"

#include <ctime>

#include "foundation/string/OmEnv.h"

namespace {

// Elapsed processor time that ends the doubling: just over one second at the
// standard million ticks a second.
constexpr std::clock_t kMinElapsed = 999999;

}  // namespace

Bogomips::Bogomips(int processors, uint32_t factor)
    : processors(processors < 1 ? 1 : processors), factor(factor) {
  Initialise();
}

void Bogomips::Initialise() {
  highest = 0;
  lowest = 0;
  calculate();
  lowest = current;
  // The first estimate has used the configured factor; a factor above 100
  // would overstate a multiprocessor, so later ones use 80.
  if (factor > 100) factor = 80;
}

void Bogomips::delay(int loops) {
  // Each pass is a short chain of dependent multiplies that the compiler may
  // neither remove nor fold, so that even a fast processor needs a second of
  // work before the doubled count leaves the int range.
  volatile int64_t i = loops;
  uint64_t x = 1;
  while (i >= 0) {
    for (int k = 0; k < 4; ++k) {
      x = x * 3 + 1;
      asm volatile("" : "+r"(x));
    }
    i = i - 1;
  }
  asm volatile("" : : "r"(x));
}

int Bogomips::calculate() {
  uint64_t loops = 1;
  std::clock_t elapsed = 0;
  OmEnv& env = OmEnv::Current();
  do {
    loops <<= 1;
    if (loops == 0) return 0;
    const std::clock_t start = env.ProcessorClock();
    delay(static_cast<int>(loops));
    elapsed = env.ProcessorClock() - start;
  } while (elapsed <= kMinElapsed);

  int64_t estimate = static_cast<int64_t>(
      static_cast<uint64_t>(processors) *
      ((loops / static_cast<uint64_t>(elapsed)) * 1000000 / 500000));
  if (processors > 1) estimate = static_cast<int64_t>(factor) * estimate / 100;
  current = estimate;

  if (estimate > highest) {
    highest = estimate;
  } else if (estimate < lowest) {
    lowest = estimate;
  }
  return 1;
}
