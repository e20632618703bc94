#include "foundation/event/OmEventLoop.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/process/OmUnixProcess.h"
#include "foundation/string/OmError.h"
#include "foundation/string/OmOSStream.h"

namespace {

const char kPrefix[] = "VRX legacy event loop";

// A hang-up or error wakes both the reader and the writer.
constexpr short kReadReady = POLLIN | POLLERR | POLLHUP;
constexpr short kWriteReady = POLLOUT | POLLERR | POLLHUP;

constexpr size_t kInitialPollCapacity = 10;
constexpr size_t kPollGrowth = 100;

}  // namespace


OmEventLoop::OmEventLoop(OmUnixProcess* process)
    : process_(process), pollCapacity_(kInitialPollCapacity) {
  pollList_ = static_cast<pollfd*>(std::calloc(pollCapacity_ + 1, sizeof(pollfd)));
  pollList_[0].fd = -1;
}

OmEventLoop::~OmEventLoop() {
  std::free(pollList_);
  for (size_t i = 0; i < readCallbacks_.Size(); ++i) delete readCallbacks_.Get(i);
  for (size_t i = 0; i < writeCallbacks_.Size(); ++i) delete writeCallbacks_.Get(i);
}

bool OmEventLoop::AddFileEvent(unsigned fd, bool read, bool write, OmEventCallback* cb) {
  size_t i = 0;
  while (i < pollCount_ && Entry(i).fd != static_cast<int>(fd)) ++i;
  if (i == pollCount_) {
    if (pollCount_ == pollCapacity_) {
      pollCapacity_ += kPollGrowth;
      void* grown = std::realloc(pollList_, (pollCapacity_ + 1) * sizeof(pollfd));
      if (grown == nullptr) {
        std::fprintf(stderr,
                     "\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop failed to allocate memory "
                     "for poll list - this software will not function correctly.\n",
                     kPrefix, static_cast<int>(getpid()));
        // The last registered descriptor drops out as well; kept on purpose.
        --pollCount_;
        pollCapacity_ -= kPollGrowth;
        return false;
      }
      pollList_ = static_cast<pollfd*>(grown);
    }
    pollfd& entry = Entry(pollCount_);
    entry.fd = static_cast<int>(fd);
    entry.events = POLLNVAL;
    entry.revents = 0;
    ++pollCount_;
  }
  if (read) {
    delete readCallbacks_.Get(fd);
    readCallbacks_.Set(fd, new FileRecord{cb});
    Entry(i).events = static_cast<short>(Entry(i).events | POLLIN);
  }
  if (write) {
    delete writeCallbacks_.Get(fd);
    writeCallbacks_.Set(fd, new FileRecord{cb});
    Entry(i).events = static_cast<short>(Entry(i).events | POLLOUT);
  }
  return true;
}

void OmEventLoop::ClearSlot(OmISparseArray<FileRecord>& array, unsigned fd) {
  if (fd >= array.Size()) return;
  delete array.Get(fd);
  array.Set(fd, nullptr);
}

bool OmEventLoop::RemoveFileEvent(unsigned fd, bool read, bool write, OmEventCallback*) {
  size_t i = 0;
  while (i < pollCount_ && Entry(i).fd != static_cast<int>(fd)) ++i;
  if (i == pollCount_) return false;
  if (read) {
    ClearSlot(readCallbacks_, fd);
    Entry(i).events = static_cast<short>(Entry(i).events & ~POLLIN);
  }
  if (write) {
    ClearSlot(writeCallbacks_, fd);
    Entry(i).events = static_cast<short>(Entry(i).events & ~POLLOUT);
  }
  if ((Entry(i).events & ~POLLNVAL) == 0) {
    std::memmove(&Entry(i), &Entry(i + 1), (pollCount_ - i - 1) * sizeof(pollfd));
    --pollCount_;
  }
  return true;
}

bool OmEventLoop::AddTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) {
  timeouts_.Insert(cb, when);
  return true;
}

OmTimeVal OmEventLoop::AddBatchedTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) {
  OmTimeVal at = when;
  while (timeouts_.Listed(at)) {
    at = at.microseconds < 999999 ? OmTimeVal(at.seconds, at.microseconds + 1)
                                  : OmTimeVal(at.seconds + 1, 0);
  }
  timeouts_.Insert(cb, at, true);
  return at;
}

bool OmEventLoop::RemoveTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) {
  const long i = timeouts_.Find(when, cb);
  if (i < 0) return false;
  // The owner hears of the withdrawal while the entry is still listed; its
  // handler may add or remove timeouts meanwhile, so the entry is taken out
  // by its token rather than its position.
  const uint64_t serial = timeouts_.Serial(static_cast<size_t>(i));
  if (cb != nullptr) cb->Dispatch(OmEvent::removed);
  timeouts_.RemoveSerial(serial, static_cast<size_t>(i));
  return true;
}

bool OmEventLoop::HasTimeout(const OmEventCallback* cb) const {
  for (size_t i = 0; i < timeouts_.Length(); ++i) {
    if (timeouts_[i].callback == cb) return true;
  }
  return false;
}

int OmEventLoop::EnterEventLoop() {
  OmUnixProcess::StartSignals();
  running_ = true;
  while (ShouldContinue()) RunOneTurn();
  OmUnixProcess::StopSignals();
  return exitValue_;
}

void OmEventLoop::ExitEventLoop(int value) {
  exitValue_ = value;
  running_ = false;
}

int OmEventLoop::WaitMilliseconds(const OmTimeVal& now) const {
  if (timeouts_.IsEmpty()) return -1;
  const OmTimeVal& due = timeouts_[0].time;
  if (due.seconds < now.seconds ||
      (due.seconds == now.seconds && due.microseconds <= now.microseconds)) {
    return 0;
  }
  long long seconds = static_cast<long long>(due.seconds) - now.seconds;
  long long micros = static_cast<long long>(due.microseconds) - now.microseconds;
  if (micros < 0) {
    --seconds;
    micros += 1000000;
  }
  const long long ms = seconds * 1000 + micros / 1000;
  return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

void OmEventLoop::RunOneTurn() {
  if (process_ != nullptr && process_->ProcessSignals()) return;

  if (beforeSleep_ != nullptr) beforeSleep_->Dispatch(OmEvent::fired);
  const OmTimeVal start = timeouts_.IsEmpty() ? OmTimeVal() : OmTimeVal::now();
  const int wait = WaitMilliseconds(start);
  pollfd& wake = pollList_[0];
  wake.fd = process_ != nullptr ? process_->SignalWakeFd() : -1;
  wake.events = POLLIN;
  wake.revents = 0;

  const int ready = poll(pollList_, pollCount_ + 1, wait);
  if (ready == 0) {
    FireFirstTimeout();
    return;
  }
  if (ready < 0) {
    const int err = errno;
    // An interrupting signal is delivered by the next turn's ProcessSignals.
    if (err == EINTR || err == EAGAIN) return;
    ReportPollFailure(err, wait);
    return;
  }
  if (wake.revents != 0 && process_ != nullptr) process_->DrainSignalWake();
  DispatchReady();
  // A timeout that was due when the turn began fires in this turn, after the
  // ready descriptors had their pass: descriptors that are ready in every
  // turn must not starve the timers. Still one per turn.
  if (wait == 0 && !timeouts_.IsEmpty() && WaitMilliseconds(start) == 0) FireFirstTimeout();
}

void OmEventLoop::FireFirstTimeout() {
  if (timeouts_.IsEmpty()) return;
  FireTimeout();
  if (!timeouts_.IsEmpty() && timeouts_.Batched(0)) {
    // Those the next turn would fire without waiting (due within the wait's
    // millisecond) fire now instead.
    const OmTimeVal now = OmTimeVal::now();
    for (size_t n = 1; n < kMaxBatch && !timeouts_.IsEmpty(); ++n) {
      if (!timeouts_.Batched(0) || WaitMilliseconds(now) > kBatchWindowMs) break;
      FireTimeout();
    }
  }
  if (!inBatch_) return;
  inBatch_ = false;
  if (afterBatch_ != nullptr) afterBatch_->Dispatch(OmEvent::fired);
}

void OmEventLoop::FireTimeout() {
  inBatch_ = inBatch_ || timeouts_.Batched(0);
  // Out of the list before dispatch, so a callback that re-arms itself is not
  // fired twice in one turn.
  const OmEventTimeout entry = timeouts_.TakeFirst();
  if (entry.callback != nullptr) entry.callback->Dispatch(OmEvent::fired);
}

void OmEventLoop::ReportPollFailure(int err, int wait) {
  OmOSStream args;
  args << static_cast<unsigned long>(pollCount_) << ", " << wait;
  const OmUnixError error(err, "poll", args.Str());
  std::fprintf(stderr, "\n%sPID=%d FATAL ERROR:EventLoop has unexpected error: %s\n", kPrefix,
               static_cast<int>(getpid()), error.Reason().AsUtf8().c_str());
  std::fflush(stderr);
  ExitEventLoop(127);
}

void OmEventLoop::DispatchReady() {
  // Callbacks add and remove descriptors (and may move the list), so the
  // count and the entry are re-read at every step.
  for (size_t i = 0; i < pollCount_; ++i) {
    const int fd = Entry(i).fd;
    if ((Entry(i).revents & kReadReady) != 0) {
      const FileRecord* rec = readCallbacks_.Get(static_cast<unsigned>(fd));
      if (rec != nullptr && rec->callback != nullptr) rec->callback->Dispatch(OmEvent::fired);
    }
    if (i >= pollCount_) break;

    if ((Entry(i).revents & kWriteReady) != 0) {
      const FileRecord* rec = writeCallbacks_.Get(static_cast<unsigned>(Entry(i).fd));
      if (rec != nullptr && rec->callback != nullptr) rec->callback->Dispatch(OmEvent::fired);
    }
    if (i >= pollCount_) break;

    const pollfd& entry = Entry(i);
    if ((entry.revents & POLLNVAL) != 0) {
      const int bad = entry.fd;
      if ((entry.events & POLLOUT) != 0) {
        std::fprintf(stderr,
                     "\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop has bad write file "
                     "descriptor %d - this software will not function correctly.\n",
                     kPrefix, static_cast<int>(getpid()), bad);
      }
      if ((entry.events & POLLIN) != 0) {
        std::fprintf(stderr,
                     "\n%sPID=%d SEVERE INTERNAL ERROR\nThe eventloop has bad read file "
                     "descriptor %d - this software will not function correctly.\n",
                     kPrefix, static_cast<int>(getpid()), bad);
      }
      RemoveFileEvent(static_cast<unsigned>(bad), true, true, nullptr);
      // The remaining ready descriptors wait for the next turn.
      break;
    }
  }
}
