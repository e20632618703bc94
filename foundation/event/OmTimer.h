#ifndef QUELM_FOUNDATION_EVENT_OMTIMER_H_
#define QUELM_FOUNDATION_EVENT_OMTIMER_H_

#include "foundation/event/OmCallback.h"
#include "foundation/string/OmTimeVal.h"

class OmEventLoop;

// A one-shot timeout held by its owner: armed, re-armed and cancelled by
// handle, so that the owner need not remember the time it was set for.
// Destroying it cancels it. The target hears only "fired"; a cancel is
// silent, since the owner is the one cancelling.
class OmTimer : private OmEventCallback {
 public:
  // Neither is owned; both must outlive the timer's armed time.
  OmTimer(OmEventLoop& loop, OmEventCallback* target) : loop_(&loop), target_(target) {}
  ~OmTimer() override { Cancel(); }
  OmTimer(const OmTimer&) = delete;
  OmTimer& operator=(const OmTimer&) = delete;

  // Fires at when; an armed timer moves there.
  void Arm(const OmTimeVal& when);
  // As Arm, for timeouts that come in crowds: batched with those due with it
  // (OmEventLoop::AddBatchedTimeoutEvent). The time may move a microsecond on.
  void ArmBatched(const OmTimeVal& when);
  void Cancel();
  bool Armed() const { return armed_; }
  // The time it is armed for (as listed), while armed.
  const OmTimeVal& When() const { return when_; }

 private:
  void Dispatch(OmEvent::cbdispatch reason) override;

  OmEventLoop* loop_;
  OmEventCallback* target_;
  OmTimeVal when_;
  bool armed_ = false;
};

#endif  // QUELM_FOUNDATION_EVENT_OMTIMER_H_
