#include "measure/Bogomips.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "foundation/event/OmEventLoop.h"
#include "foundation/process/OmUnixProcess.h"
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
  const int64_t estimate = measure();
  if (estimate < 0) return 0;
  record(estimate);
  return 1;
}

int64_t Bogomips::measure() const {
  uint64_t loops = 1;
  std::clock_t elapsed = 0;
  OmEnv& env = OmEnv::Current();
  do {
    loops <<= 1;
    if (loops == 0) return -1;
    const std::clock_t start = env.ProcessorClock();
    delay(static_cast<int>(loops));
    elapsed = env.ProcessorClock() - start;
  } while (elapsed <= kMinElapsed);

  int64_t estimate = static_cast<int64_t>(
      static_cast<uint64_t>(processors) *
      ((loops / static_cast<uint64_t>(elapsed)) * 1000000 / 500000));
  if (processors > 1) estimate = static_cast<int64_t>(factor) * estimate / 100;
  return estimate;
}

void Bogomips::record(int64_t estimate) {
  current = estimate;
  if (estimate > highest) {
    highest = estimate;
  } else if (estimate < lowest) {
    lowest = estimate;
  }
}

Bogomips::~Bogomips() {
  if (childFd < 0) return;
  childDone = nullptr;
  kill(childPid, SIGKILL);  // reaped by the process object, or with the probe
  endChild(0);
}

bool Bogomips::calculateInChild(OmEventLoop& loop, OmCallback<int>* done) {
  if (childFd >= 0 || the_current_process == nullptr) return false;
  OmUnixProcess::ForkParams params;
  params.wantDataPipe = true;
  if (!the_current_process->Fork(params)) return false;
  if (params.pid == 0) {
    // The child: nothing of the probe's runs here but the timing.
    const int64_t estimate = measure();
    unsigned char bytes[sizeof estimate];
    std::memcpy(bytes, &estimate, sizeof estimate);
    const ssize_t n = write(params.childDataFd, bytes, sizeof bytes);
    _exit(n == static_cast<ssize_t>(sizeof bytes) ? 0 : 1);
  }
  childPid = params.pid;
  childFd = params.dataFd;
  fcntl(childFd, F_SETFD, FD_CLOEXEC);
  fcntl(childFd, F_SETFL, fcntl(childFd, F_GETFL) | O_NONBLOCK);
  childLoop = &loop;
  childDone = done;
  figureBytes = 0;
  loop.AddFileEvent(static_cast<unsigned>(childFd), true, false, &readChildCallback);
  return true;
}

void Bogomips::readChildCB(OmEventCallback*, OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired || childFd < 0) return;
  const ssize_t n = read(childFd, figure + figureBytes, sizeof figure - figureBytes);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n > 0) {
    figureBytes += static_cast<unsigned>(n);
    if (figureBytes < sizeof figure) return;
    int64_t estimate = 0;
    std::memcpy(&estimate, figure, sizeof estimate);
    if (estimate >= 0) {
      record(estimate);
      endChild(1);
      return;
    }
  }
  endChild(0);  // the child ended, or overflowed, without a figure
}

void Bogomips::endChild(int outcome) {
  childLoop->RemoveFileEvent(static_cast<unsigned>(childFd), true, false, &readChildCallback);
  close(childFd);
  childFd = -1;
  childPid = -1;
  if (OmCallback<int>* done = childDone) {
    childDone = nullptr;
    done->Dispatch(outcome);
  }
}
