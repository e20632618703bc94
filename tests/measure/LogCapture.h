#ifndef QUELM_TESTS_MEASURE_LOGCAPTURE_H_
#define QUELM_TESTS_MEASURE_LOGCAPTURE_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "agent/MyLogger.h"
#include "foundation/log/OmLog.h"

// Sends every message to a plain log in a fresh directory while it lives.
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

  bool Ok() const { return ok; }
  bool Contains(const std::string& part) const {
    std::ostringstream out;
    out << std::ifstream(dir + "/measure.log").rdbuf();
    return out.str().find(part) != std::string::npos;
  }

 private:
  std::string dir;
  bool ok = false;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

#endif  // QUELM_TESTS_MEASURE_LOGCAPTURE_H_
