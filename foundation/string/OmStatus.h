#ifndef QUELM_FOUNDATION_STRING_OMSTATUS_H_
#define QUELM_FOUNDATION_STRING_OMSTATUS_H_

struct OmStatus {
  enum Value { Failure = 0, Success = 1 };
};

#endif  // QUELM_FOUNDATION_STRING_OMSTATUS_H_
