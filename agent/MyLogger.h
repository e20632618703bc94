#ifndef QUELM_AGENT_MYLOGGER_H_
#define QUELM_AGENT_MYLOGGER_H_

#include "foundation/log/OmLog.h"

// The probe's logger: supplies the category of every catalogued message.
class MyLogger : public OmLog {
 public:
  const char* const* MessageStrings() const override;
};

extern MyLogger mylog;

#endif  // QUELM_AGENT_MYLOGGER_H_
