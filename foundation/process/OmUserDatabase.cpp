// Cached look-ups in the user and group databases.
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "foundation/process/OmUnixGroup.h"
#include "foundation/process/OmUnixUser.h"
#include "foundation/string/OmTimeVal.h"

namespace {

constexpr size_t kCacheEntries = 32;
constexpr uint32_t kLifetimeSeconds = 60;
// Entries are small; a larger one means a broken database, not a big group.
constexpr size_t kMaxRecordBuffer = 1 << 20;

// The one place the cache reads the clock.
uint32_t Now() { return OmTimeVal::now().Time(); }

// The most recent entries, oldest first; a stale entry is dropped when met.
template <typename Entry>
class Cache {
 public:
  template <typename Match>
  const Entry* Find(Match match) {
    const uint32_t now = Now();
    for (size_t i = 0; i < slots_.size();) {
      // A clock set back counts as stale too.
      if (now - slots_[i].born >= kLifetimeSeconds) {
        slots_.erase(slots_.begin() + static_cast<long>(i));
      } else if (match(slots_[i].entry)) {
        return &slots_[i].entry;
      } else {
        ++i;
      }
    }
    return nullptr;
  }
  void Put(const Entry& entry) {
    if (slots_.size() >= kCacheEntries) slots_.erase(slots_.begin());
    slots_.push_back({entry, Now()});
  }
  void Clear() { slots_.clear(); }
  size_t Size() const { return slots_.size(); }

 private:
  struct Slot {
    Entry entry;
    uint32_t born;
  };
  std::vector<Slot> slots_;
};

Cache<OmUnixUser>& Users() {
  static Cache<OmUnixUser> cache;
  return cache;
}

Cache<OmUnixGroup>& Groups() {
  static Cache<OmUnixGroup> cache;
  return cache;
}

// Runs a reentrant database call (getpwnam_r and kin), growing its buffer
// until the record fits. found is null when there is no such entry.
template <typename Record, typename Call>
int Get(Call call, Record& record, std::vector<char>& buffer, Record*& found) {
  buffer.resize(1024);
  int rc;
  while ((rc = call(&record, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxRecordBuffer) {
    buffer.resize(buffer.size() * 2);
  }
  return rc;
}

template <typename Call>
bool GetUser(Call call, const char* callName, const OmUniString& key, OmUnixUser& out,
             OmUnixError& err) {
  passwd record{};
  passwd* found = nullptr;
  std::vector<char> buffer;
  const int rc = Get(call, record, buffer, found);
  if (found == nullptr) {
    // No error and no entry: the user does not exist.
    err.Set(rc != 0 ? rc : ENOENT, callName, key);
    return false;
  }
  OmUnixUser user(found->pw_uid, found->pw_gid, found->pw_name);
  if (!OmUnixUser::GroupsOf(found->pw_name, found->pw_gid, user.groups, err)) return false;
  Users().Put(user);
  out = user;
  return true;
}

template <typename Call>
bool GetGroup(Call call, const char* callName, const OmUniString& key, OmUnixGroup& out,
              OmUnixError& err) {
  group record{};
  group* found = nullptr;
  std::vector<char> buffer;
  const int rc = Get(call, record, buffer, found);
  if (found == nullptr) {
    err.Set(rc != 0 ? rc : ENOENT, callName, key);
    return false;
  }
  OmUnixGroup g;
  g.gid = found->gr_gid;
  g.name = found->gr_name;
  for (char** m = found->gr_mem; m != nullptr && *m != nullptr; ++m) g.members.push_back(*m);
  Groups().Put(g);
  out = g;
  return true;
}

}  // namespace

bool OmUnixUser::ByName(const char* userName, OmUnixUser& out, OmUnixError& err) {
  const std::string name = userName != nullptr ? userName : "";
  if (const OmUnixUser* hit = Users().Find([&](const OmUnixUser& u) { return u.name == name; })) {
    out = *hit;
    return true;
  }
  auto call = [&](passwd* r, char* b, size_t n, passwd** f) {
    return getpwnam_r(name.c_str(), r, b, n, f);
  };
  return GetUser(call, "getpwnam_r", OmUniString(name), out, err);
}

bool OmUnixUser::ById(unsigned userId, OmUnixUser& out, OmUnixError& err) {
  if (const OmUnixUser* hit = Users().Find([&](const OmUnixUser& u) { return u.uid == userId; })) {
    out = *hit;
    return true;
  }
  auto call = [&](passwd* r, char* b, size_t n, passwd** f) {
    return getpwuid_r(userId, r, b, n, f);
  };
  return GetUser(call, "getpwuid_r", OmUniString::CreateFromUnsigned(userId), out, err);
}

bool OmUnixUser::GroupsOf(const char* userName, unsigned gid, std::vector<gid_t>& out,
                          OmUnixError& err) {
  std::vector<gid_t> groups(16);
  int count = static_cast<int>(groups.size());
  // Too small a list fails and says in count how many there are; the
  // database may grow between calls, hence the loop.
  while (getgrouplist(userName, gid, groups.data(), &count) < 0) {
    if (static_cast<size_t>(count) <= groups.size()) {
      err.Set(ENOBUFS, "getgrouplist", OmUniString(userName));
      return false;
    }
    groups.resize(static_cast<size_t>(count));
  }
  groups.resize(static_cast<size_t>(count));
  groups.erase(std::remove(groups.begin(), groups.end(), gid), groups.end());
  groups.insert(groups.begin(), gid);
  out = groups;
  return true;
}

void OmUnixUser::FlushCache() {
  Users().Clear();
  Groups().Clear();
}

unsigned OmUnixUser::CachedEntries() { return static_cast<unsigned>(Users().Size()); }

bool OmUnixGroup::ByName(const char* groupName, OmUnixGroup& out, OmUnixError& err) {
  const std::string name = groupName != nullptr ? groupName : "";
  if (const OmUnixGroup* hit =
          Groups().Find([&](const OmUnixGroup& g) { return g.name == name; })) {
    out = *hit;
    return true;
  }
  auto call = [&](group* r, char* b, size_t n, group** f) {
    return getgrnam_r(name.c_str(), r, b, n, f);
  };
  return GetGroup(call, "getgrnam_r", OmUniString(name), out, err);
}

bool OmUnixGroup::ById(unsigned groupId, OmUnixGroup& out, OmUnixError& err) {
  if (const OmUnixGroup* hit =
          Groups().Find([&](const OmUnixGroup& g) { return g.gid == groupId; })) {
    out = *hit;
    return true;
  }
  auto call = [&](group* r, char* b, size_t n, group** f) {
    return getgrgid_r(groupId, r, b, n, f);
  };
  return GetGroup(call, "getgrgid_r", OmUniString::CreateFromUnsigned(groupId), out, err);
}
