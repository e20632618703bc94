#include "foundation/string/OmError.h"

#include <cstring>

OmUniString OmUnixError::Reason() const {
  const OmUniString system(std::strerror(errno_));
  if (call_.IsEmpty() && args_.IsEmpty()) return errno_ != 0 ? system : message_;
  return call_ + "(" + args_ + "): " + system;
}

OmUniString OmConfigurationError::Reason() const {
  return OmUniString("Key ") + key_ + " gave list " + value_ + ": Failure: " + failure_;
}
