#include "agent/MyLogger.h"

#include <array>

#include "agent/Messages.h"

const char* const* MyLogger::MessageStrings() const {
  // Indexed by message number; the empty entries and the null end the table.
  static const auto table = [] {
    std::array<const char*, kMessageCount + 3> t{};
    for (unsigned n = 0; n < kMessageCount; ++n) t[n] = kMessageCatalogue[n].category;
    t[kMessageCount] = "";
    t[kMessageCount + 1] = "";
    t[kMessageCount + 2] = nullptr;
    return t;
  }();
  return table.data();
}
