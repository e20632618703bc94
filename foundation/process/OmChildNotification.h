#ifndef QUELM_FOUNDATION_PROCESS_OMCHILDNOTIFICATION_H_
#define QUELM_FOUNDATION_PROCESS_OMCHILDNOTIFICATION_H_

#include "foundation/event/OmCallback.h"
#include "foundation/process/OmUnixProcess.h"

// Base for an owner that wants to hear when its child dies: it becomes the
// fork description's exit callback for as long as it lives.
class OmChildNotification {
 public:
  explicit OmChildNotification(OmUnixProcess::ForkParams* params)
      : callback_(new OmSimpleCallback<OmUnixProcess::child_info, OmChildNotification>(
            this, &OmChildNotification::_childcb)) {
    params->exitCallback = callback_;
  }
  virtual ~OmChildNotification() { delete callback_; }
  OmChildNotification(const OmChildNotification&) = delete;
  OmChildNotification& operator=(const OmChildNotification&) = delete;

  // The child has been reaped.
  virtual void ChildExited(OmUnixProcess::child_info info) = 0;

 private:
  void _childcb(OmCallback<OmUnixProcess::child_info>*, OmUnixProcess::child_info info) {
    ChildExited(info);
  }

  OmUnixProcess::ChildCallback* callback_;
};

#endif  // QUELM_FOUNDATION_PROCESS_OMCHILDNOTIFICATION_H_
