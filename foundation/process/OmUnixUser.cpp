#include "foundation/process/OmUnixUser.h"

#include <grp.h>
#include <pwd.h>

bool OmUnixUser::Lookup(const char* userName, OmUnixUser& out) {
  const passwd* pw = getpwnam(userName);
  if (pw == nullptr) return false;
  out.uid = pw->pw_uid;
  out.gid = pw->pw_gid;
  out.name = pw->pw_name;
  out.groups.clear();

  int count = 16;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (getgrouplist(out.name.c_str(), out.gid, groups.data(), &count) < 0) {
    // count now holds the number needed.
    groups.resize(static_cast<size_t>(count));
    if (getgrouplist(out.name.c_str(), out.gid, groups.data(), &count) < 0) count = 0;
  }
  groups.resize(static_cast<size_t>(count));
  if (groups.empty()) groups.push_back(out.gid);
  out.groups = groups;
  return true;
}
