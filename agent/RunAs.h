#ifndef QUELM_AGENT_RUNAS_H_
#define QUELM_AGENT_RUNAS_H_

struct Settings;

// The user the probe serves as (the user and group keys). Started as root,
// the probe keeps root through start-up, since its port, log folder and pid
// folder may need it, and gives root up once its pid file is written. The
// measuring tool never runs as root: each start of it takes on the user.

// Looks the user and group up; when the switch cannot be made (no such user
// or group, not started as root) logs why and leaves settings.runAs false.
void resolveRunAs(Settings& settings);

// Right after the pid file is written: hands the log files and the pid file
// to the user, becomes it, and warns about a log or pid folder it cannot
// write in (log rotation and the pid file's removal would then fail).
void becomeRunAsUser(const Settings& settings);

#endif  // QUELM_AGENT_RUNAS_H_
