#ifndef QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_
#define QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_

#include <sys/types.h>

#include <string>
#include <vector>

// One entry of the user database: what the process needs to become that user.
class OmUnixUser {
 public:
  OmUnixUser() = default;
  OmUnixUser(unsigned u, unsigned g, const std::string& n) : uid(u), gid(g), name(n) {}

  // Fills `out` from the password database (with the user's supplementary
  // groups); false when there is no such user.
  static bool Lookup(const char* userName, OmUnixUser& out);

  unsigned uid = 0;
  unsigned gid = 0;
  std::string name;
  std::vector<gid_t> groups;
};

#endif  // QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_
