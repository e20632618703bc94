#include "foundation/event/OmTimer.h"

#include "foundation/event/OmEventLoop.h"

void OmTimer::Arm(const OmTimeVal& when) {
  Cancel();
  when_ = when;
  armed_ = loop_->AddTimeoutEvent(when, this);
}

void OmTimer::ArmBatched(const OmTimeVal& when) {
  Cancel();
  when_ = loop_->AddBatchedTimeoutEvent(when, this);
  armed_ = true;
}

void OmTimer::Cancel() {
  if (!armed_) return;
  armed_ = false;
  // The loop tells this of the withdrawal, which stays here.
  loop_->RemoveTimeoutEvent(when_, this);
}

void OmTimer::Dispatch(OmEvent::cbdispatch reason) {
  if (reason != OmEvent::fired) return;
  // Gone from the loop once fired: the target may arm it again.
  armed_ = false;
  if (target_ != nullptr) target_->Dispatch(OmEvent::fired);
}
