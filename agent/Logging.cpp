#include "agent/Logging.h"

#include <vector>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/MyLogger.h"

Logging::Logging(const OmUniString& dir, const OmUniString& filter)
    : logDirectory(dir), logFilter(filter), programName("quelmloadprobe"), extension(".log") {
  initLogging();
}

Logging::~Logging() { closeLogs(); }

bool Logging::initLogging() {
  ok = false;
  OmLog::InitLogs(&mylog, logDirectory);
  std::vector<OmUniString> clauses;
  Split(logFilter, clauses, ',');
  ok = mylog.SetupCSFilters(clauses);
  return ok;
}

void Logging::reOpenLogs() {
  if (OmLog* log = OmLog::Current()) {
    log->Flush();
    log->HaveForked();
  }
  initLogging();
  if (!ok) processExit(2);
}

void Logging::flushLogs() {
  OmLog* log = OmLog::Current();
  if (log == nullptr) return;
  log->Flush();
  if (!log->ReOpen()) LogReOpenLogFail(logDirectory);
}

void Logging::closeLogs() {
  if (OmLog* log = OmLog::Current()) {
    log->Flush();
    log->HaveForked();
  }
  ok = false;
}
