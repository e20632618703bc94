#ifndef QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_
#define QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "foundation/string/OmError.h"

// One entry of the user database: what the process needs to become that user.
class OmUnixUser {
 public:
  OmUnixUser() = default;
  OmUnixUser(unsigned u, unsigned g, const std::string& n) : uid(u), gid(g), name(n) {}

  // Fills `out` from the password database (with the user's supplementary
  // groups); false when there is no such user.
  static bool Lookup(const char* userName, OmUnixUser& out);

  // Cached look-ups (OmUserDatabase.cpp): an entry serves for a minute, so
  // repeated switches do not each ask a database that may be remote, yet
  // changes to it are seen soon. False, with the reason in err, for an
  // unknown user or a failing database; failures are not cached.
  static bool ByName(const char* userName, OmUnixUser& out, OmUnixError& err);
  static bool ById(unsigned userId, OmUnixUser& out, OmUnixError& err);
  // The groups a user belongs to, its primary group first.
  static bool GroupsOf(const char* userName, unsigned gid, std::vector<gid_t>& out,
                       OmUnixError& err);
  static void FlushCache();
  static unsigned CachedEntries();

  unsigned uid = 0;
  unsigned gid = 0;
  std::string name;
  std::vector<gid_t> groups;
};

#endif  // QUELM_FOUNDATION_PROCESS_OMUNIXUSER_H_
