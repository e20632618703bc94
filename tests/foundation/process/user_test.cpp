#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "foundation/process/OmUnixProcess.h"
#include "foundation/process/OmUnixUser.h"

namespace {

TEST(UserTest, UsersByNameAndIdThroughTheCache) {
  OmUnixUser::FlushCache();
  OmUnixUser byName, byId, none;
  OmUnixError err;
  ASSERT_TRUE(OmUnixUser::ByName("root", byName, err)) << err.Reason().AsUtf8();
  EXPECT_EQ(byName.uid, 0u);
  EXPECT_EQ(byName.groups.at(0), byName.gid);  // the primary group first
  ASSERT_TRUE(OmUnixUser::ById(0, byId, err));
  EXPECT_EQ(byId.name, "root");
  EXPECT_EQ(OmUnixUser::CachedEntries(), 1u);  // the id found what the name cached
  // Unknown entries fail with the call and key, and are not cached.
  EXPECT_FALSE(OmUnixUser::ByName("no-such-user-q", none, err));
  EXPECT_EQ(err.Reason(), "getpwnam_r(no-such-user-q): No such file or directory");
  EXPECT_FALSE(OmUnixUser::ById(3999999999u, none, err));
  EXPECT_EQ(err.Call(), "getpwuid_r");
  EXPECT_EQ(OmUnixUser::CachedEntries(), 1u);
}

TEST(UserTest, ChildrenBecomeNobodyWithItsGroups) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  OmUnixUser nobody;
  OmUnixError err;
  ASSERT_TRUE(OmUnixUser::ByName("nobody", nobody, err));
  // Real and effective ids, then the groups (id -G lists the effective group first).
  std::string want = std::to_string(nobody.uid) + " " + std::to_string(nobody.uid);
  want += " " + std::to_string(nobody.gid) + " " + std::to_string(nobody.gid);
  for (gid_t g : nobody.groups) want += " " + std::to_string(g);
  const std::string shell =
      "test \"$(id -ru) $(id -u) $(id -rg) $(id -g)$(printf ' %s' $(id -G))\" = '" + want + "'";
  const char* const argv[] = {"/bin/sh", "-c", shell.c_str(), nullptr};
  // Root's own supplementary groups must not reach the child.
  std::vector<gid_t> held(static_cast<size_t>(getgroups(0, nullptr))), rootGroups = {0, 4};
  getgroups(static_cast<int>(held.size()), held.data());
  ASSERT_EQ(setgroups(2, rootGroups.data()), 0);
  OmUnixProcess process;
  // BecomeNobody in the child; Exec with a whole user; Exec with the two ids only.
  for (int how : {0, 1, 2}) {
    OmUnixProcess::ForkParams params;
    params.argv = how > 0 ? argv : nullptr;
    if (how == 1) params.SetUser(nobody);
    params.uid = nobody.uid, params.gid = nobody.gid, params.setUid = params.setGid = how > 0;
    fflush(nullptr);
    const bool forked = process.Fork(params);
    if (params.pid == 0 && how == 0 && process.BecomeNobody())
      execv(argv[0], const_cast<char**>(argv));
    if (params.pid == 0) _exit(126);
    int status = -1;
    EXPECT_TRUE(forked && waitpid(params.pid, &status, 0) == params.pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << how << " " << status;
  }
  setgroups(held.size(), held.data());
}

}  // namespace
