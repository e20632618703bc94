#ifndef QUELM_AGENT_LOGGING_H_
#define QUELM_AGENT_LOGGING_H_

#include "foundation/string/OmUniString.h"

// Connects the probe to the log library: the log directory and the filter
// that routes each message category to its files.
class Logging {
 public:
  Logging(const OmUniString& logDirectory, const OmUniString& logFilter);
  ~Logging();
  Logging(const Logging&) = delete;
  Logging& operator=(const Logging&) = delete;

  bool initLogging();
  // Closes and sets the logs up again; ends the probe with 2 if that fails.
  void reOpenLogs();
  // Flushes and reopens the log files (after rotation).
  void flushLogs();
  void closeLogs();

 private:
  bool ok = false;
  OmUniString logDirectory;
  OmUniString logFilter;
  OmUniString programName;
  OmUniString extension;
};

#endif  // QUELM_AGENT_LOGGING_H_
