#include "agent/RunAs.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/PidFile.h"
#include "agent/Settings.h"
#include "foundation/log/OmLog.h"
#include "foundation/process/OmUnixGroup.h"
#include "foundation/process/OmUnixProcess.h"

namespace {

// A database that has no entry says ENOENT (or nothing); anything else is a
// failing database and its own text says more.
OmUniString lookupFailure(const OmUnixError& err, const char* missing, const OmUniString& name) {
  if (err.Errno() == ENOENT || err.Errno() == 0) return OmUniString(missing) + name;
  return err.Reason();
}

void checkFolder(const OmUniString& folder, const OmUniString& user, const char* consequence) {
  if (access(folder.AsUtf8().c_str(), W_OK | X_OK) != 0 && errno != ENOENT) {
    LogRunAsFolder(folder, user, OmUniString(consequence));
  }
}

}  // namespace

void resolveRunAs(Settings& settings) {
  settings.runAs = false;
  if (settings.user.IsEmpty()) {
    if (!settings.group.IsEmpty()) {
      LogRunAsFail("(unset)", "the group attribute is set but the user attribute is not");
    }
    return;
  }
  OmUnixUser user;
  OmUnixError err;
  if (!OmUnixUser::ByName(settings.user.AsUtf8().c_str(), user, err)) {
    LogRunAsFail(settings.user, lookupFailure(err, "there is no user ", settings.user));
    return;
  }
  if (!settings.group.IsEmpty()) {
    OmUnixGroup group;
    if (!OmUnixGroup::ByName(settings.group.AsUtf8().c_str(), group, err)) {
      LogRunAsFail(settings.user, lookupFailure(err, "there is no group ", settings.group));
      return;
    }
    // The group takes the place of the user's own as the primary group; the
    // user keeps its other groups, its own one among them.
    user.gid = group.gid;
    user.groups.erase(std::remove(user.groups.begin(), user.groups.end(), group.gid),
                      user.groups.end());
    user.groups.insert(user.groups.begin(), group.gid);
  }
  if (geteuid() != 0) {
    // Already that user (a service manager started it so): nothing to do.
    if (getuid() == user.uid && geteuid() == user.uid && getegid() == user.gid) return;
    LogRunAsFail(settings.user, "it was not started as root");
    return;
  }
  settings.runAs = true;
  settings.runAsUser = user;
}

void becomeRunAsUser(const Settings& settings) {
  if (!settings.runAs) return;
  const OmUnixUser& user = settings.runAsUser;
  // Opened as root, these would be closed to the user: the logs could not
  // be reopened on SIGHUP, nor the pid file removed from a sticky folder.
  OmLog::HandFilesTo(user.uid, user.gid);
  if (myPidFile != nullptr) myPidFile->handTo(user.uid, user.gid);  // else nothing to remove
  if (!pr.BecomeUser(user)) {
    LogRunAsFail(settings.user, pr.LastError().Reason());
    return;
  }
  // Asked as the user, the kernel weighs modes, groups, ACLs and the path.
  checkFolder(settings.logDirectory, settings.user,
              "log files moved away (log rotation) cannot be opened again on SIGHUP.");
  checkFolder(settings.pidDirectory, settings.user,
              "the pid file cannot be removed when the quelm loadprobe stops.");
}
