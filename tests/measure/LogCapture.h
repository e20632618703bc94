#ifndef QUELM_TESTS_MEASURE_LOGCAPTURE_H_
#define QUELM_TESTS_MEASURE_LOGCAPTURE_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "agent/MyLogger.h"
#include "foundation/log/OmLog.h"

// Sends every catalogued message to a plain log in a fresh directory for the
// lifetime of the object, so a test can read back what was logged.
class LogCapture {
 public:
  LogCapture() {
    std::string pattern = (std::filesystem::temp_directory_path() / "measurelogXXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return;
    dir = pattern;
    previous = OmLog::Current();
    previousDir = OmLog::LogDirectory();
    OmLog::InitLogs(&mylog, OmUniString(dir));
    ok = mylog.SetupCSFilters({OmUniString("*/*/*:measure.log")});
  }
  ~LogCapture() {
    if (dir.empty()) return;
    mylog.SetupCSFilters({});
    OmLog::InitLogs(previous, previousDir);
    std::filesystem::remove_all(dir);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  bool Ok() const { return ok; }

  // Everything logged so far.
  std::string Text() const {
    std::ostringstream out;
    out << std::ifstream(dir + "/measure.log").rdbuf();
    return out.str();
  }

  bool Contains(const std::string& part) const { return Text().find(part) != std::string::npos; }

 private:
  std::string dir;
  bool ok = false;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

#endif  // QUELM_TESTS_MEASURE_LOGCAPTURE_H_
