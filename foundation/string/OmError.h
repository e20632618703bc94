#ifndef QUELM_FOUNDATION_STRING_OMERROR_H_
#define QUELM_FOUNDATION_STRING_OMERROR_H_

#include "foundation/string/OmUniString.h"

class OmError {
 public:
  OmError() = default;
  explicit OmError(const OmUniString& message) : message_(message) {}
  virtual ~OmError() = default;
  virtual OmUniString Reason() const { return message_; }

 protected:
  OmUniString message_;
};

// A failed system call: errno, the call's name and a description of its arguments.
class OmUnixError : public OmError {
 public:
  OmUnixError() = default;
  OmUnixError(int err, const OmUniString& call, const OmUniString& args = OmUniString())
      : errno_(err), call_(call), args_(args) {}

  void Set(int err, const OmUniString& call, const OmUniString& args = OmUniString()) {
    errno_ = err;
    call_ = call;
    args_ = args;
  }
  void Clear() { Set(0, OmUniString()); }
  int Errno() const { return errno_; }
  const OmUniString& Call() const { return call_; }
  const OmUniString& Args() const { return args_; }
  // "call(args): <system text>"; just the system text without a call.
  OmUniString Reason() const override;

 private:
  int errno_ = 0;
  OmUniString call_;
  OmUniString args_;
};

class OmConfigurationError : public OmError {
 public:
  OmConfigurationError(const OmUniString& key, const OmUniString& value, const OmUniString& failure)
      : key_(key), value_(value), failure_(failure) {}
  OmUniString Reason() const override;

 private:
  OmUniString key_;
  OmUniString value_;
  OmUniString failure_;
};

#endif  // QUELM_FOUNDATION_STRING_OMERROR_H_
