#ifndef QUELM_FOUNDATION_PROCESS_OMUNIXGROUP_H_
#define QUELM_FOUNDATION_PROCESS_OMUNIXGROUP_H_

#include <string>
#include <vector>

#include "foundation/string/OmError.h"

// One entry of the group database.
class OmUnixGroup {
 public:
  // Cached like the user look-ups (OmUserDatabase.cpp); false, with the
  // reason in err, for an unknown group or a failing database.
  static bool ByName(const char* groupName, OmUnixGroup& out, OmUnixError& err);
  static bool ById(unsigned groupId, OmUnixGroup& out, OmUnixError& err);

  unsigned gid = 0;
  std::string name;
  std::vector<std::string> members;  // those listed in the entry, not by primary group
};

#endif  // QUELM_FOUNDATION_PROCESS_OMUNIXGROUP_H_
