#ifndef QUELM_FOUNDATION_EVENT_OMEVENTLOOP_H_
#define QUELM_FOUNDATION_EVENT_OMEVENTLOOP_H_

#include <poll.h>

#include <memory>

#include "foundation/event/OmCallback.h"
#include "foundation/event/OmTimeoutList.h"
#include "foundation/string/OmContainers.h"
#include "foundation/string/OmTimeVal.h"

class OmUnixProcess;

class OmEventLoopBase {
 public:
  virtual int EnterEventLoop() = 0;
  virtual void ExitEventLoop(int) {}
  virtual bool AddTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) = 0;
  virtual bool AddFileEvent(unsigned fd, bool read, bool write, OmEventCallback* cb) = 0;
  virtual bool RemoveFileEvent(unsigned fd, bool read, bool write, OmEventCallback* cb) = 0;
  virtual bool RemoveTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) = 0;
  virtual ~OmEventLoopBase() = default;
  virtual bool ShouldContinue() const = 0;
};

// The poll loop: descriptor readiness, sorted one-shot timeouts, and the
// process object's recorded signals and dead children, all on one thread.
// The loop never owns a callback.
class OmEventLoop : public OmEventLoopBase {
 public:
  explicit OmEventLoop(OmUnixProcess* process);
  ~OmEventLoop() override;
  OmEventLoop(const OmEventLoop&) = delete;
  OmEventLoop& operator=(const OmEventLoop&) = delete;

  int EnterEventLoop() override;
  void ExitEventLoop(int value) override;
  bool AddTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) override;
  bool AddFileEvent(unsigned fd, bool read, bool write, OmEventCallback* cb) override;
  bool RemoveFileEvent(unsigned fd, bool read, bool write, OmEventCallback* cb) override;
  bool RemoveTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb) override;
  // A timeout of a kind that comes in crowds (one per subscriber, say): when
  // the entry fired in a turn is followed in the list by batched entries that
  // the next turn would fire without waiting (due, or due within the wait's
  // millisecond), they fire in the same turn, in list order, up to kMaxBatch
  // of them. The order of all timeouts stays that of the list; only
  // fewer turns are needed, so a crowd keeps up with its due times while
  // descriptors are busy. Removed with RemoveTimeoutEvent as usual, at the
  // time returned: one already listed moves the entry a microsecond on, as
  // often as needed (it may fire early anyway), since a shared time would
  // cost every insertion a sort while it is listed.
  OmTimeVal AddBatchedTimeoutEvent(const OmTimeVal& when, OmEventCallback* cb);
  static constexpr size_t kMaxBatch = 256;
  static constexpr int kBatchWindowMs = 10;
  bool ShouldContinue() const override { return running_; }

  void OpenDevPoll() {}
  void CloseDevPoll() {}

  // One turn of the loop: signals; then the ready descriptors, and one
  // timeout (with the batched ones due after it) if one was due when the
  // turn began (or the wait ran out).
  // EnterEventLoop repeats it; tests may drive the loop with it directly.
  void RunOneTurn();

  // Dispatched (with fired) before every wait in poll, after the turn's work:
  // the place for work collected during a turn, such as log output. Not owned;
  // null removes it.
  void SetBeforeSleep(OmEventCallback* cb) { beforeSleep_ = cb; }
  // Dispatched (with fired) once a turn's batched timeouts have fired, before
  // any descriptor is read: work they all queued can then be done in one go.
  // Not owned; null removes it.
  void SetAfterBatch(OmEventCallback* cb) { afterBatch_ = cb; }
  // True while batched timeouts fire, until the after-batch hook is called.
  bool InBatch() const { return inBatch_; }

  // Introspection for tests and diagnostics.
  size_t TimeoutCount() const { return timeouts_.Length(); }
  size_t PollCount() const { return pollCount_; }
  size_t PollCapacity() const { return pollCapacity_; }
  const pollfd* PollList() const { return pollList_ + 1; }
  bool HasTimeout(const OmEventCallback* cb) const;

 private:
  struct FileRecord {
    OmEventCallback* callback;
  };
  // Entry 0 of pollList_ is the process's signal wake pipe; the registered
  // descriptors follow it, so PollList()[i] is pollList_[i + 1].
  pollfd& Entry(size_t i) { return pollList_[i + 1]; }
  int WaitMilliseconds(const OmTimeVal& now) const;
  void FireFirstTimeout();
  void FireTimeout();
  void ReportPollFailure(int err, int wait);
  void DispatchReady();
  static void ClearSlot(OmISparseArray<FileRecord>& array, unsigned fd);

  int exitValue_ = 0;
  bool running_ = false;
  OmUnixProcess* process_;
  OmTimeoutList timeouts_;
  OmISparseArray<FileRecord> readCallbacks_;
  OmISparseArray<FileRecord> writeCallbacks_;
  pollfd* pollList_ = nullptr;
  size_t pollCapacity_ = 0;
  size_t pollCount_ = 0;
  OmEventCallback* beforeSleep_ = nullptr;
  OmEventCallback* afterBatch_ = nullptr;
  bool inBatch_ = false;
};

#endif  // QUELM_FOUNDATION_EVENT_OMEVENTLOOP_H_
