#ifndef QUELM_AGENT_PIDFILE_H_
#define QUELM_AGENT_PIDFILE_H_

#include <cstdint>

#include "foundation/string/OmUniString.h"

// quelmloadprobe.pid in the pid directory, holding the process id while the
// probe serves its port.
class PidFile {
 public:
  explicit PidFile(const OmUniString& pidDirectory);
  ~PidFile();
  PidFile(const PidFile&) = delete;
  PidFile& operator=(const PidFile&) = delete;
  // Gives the file to the user the probe goes on as, who must remove it.
  bool handTo(unsigned uid, unsigned gid) const;

 private:
  OmUniString name;
  uint32_t pid;
  bool created;
};

#endif  // QUELM_AGENT_PIDFILE_H_
