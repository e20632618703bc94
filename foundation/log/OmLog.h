#ifndef QUELM_FOUNDATION_LOG_OMLOG_H_
#define QUELM_FOUNDATION_LOG_OMLOG_H_

#include <string>
#include <vector>

#include "foundation/string/OmUniString.h"

// The logging facility. A program derives its logger from OmLog and supplies
// its table of message categories; messages are identified by number, and a
// filter of "pattern:destination" clauses chooses the destinations of each.
class OmLog {
 public:
  OmLog() = default;
  virtual ~OmLog();
  OmLog(const OmLog&) = delete;
  OmLog& operator=(const OmLog&) = delete;

  // Categories indexed by message number ("program/area/severity"), followed
  // by empty entries and then a null pointer.
  virtual const char* const* MessageStrings() const;
  // Number of categories before the first empty entry.
  unsigned NumLogs() const;

  // Makes logger the current logger and directory the log directory.
  static void InitLogs(OmLog* logger, const OmUniString& directory);
  static OmLog* the_logger;
  static OmLog* Current() { return the_logger; }

  // Parses the clauses and opens their destinations; false if any clause was
  // malformed or any file failed to open.
  bool SetupCSFilters(const std::vector<OmUniString>& clauses);
  // Whether message n is wanted at all (always true unless plain filtering is on).
  bool Gen(unsigned n) const;
  // Whether message n has at least one structured-side destination.
  bool CsGen(unsigned n) const;
  // Counts the message and writes it to every destination of n.
  void CserverLog(unsigned n, const OmUniString& text);
  // Whether CserverLog(n, ...) would write anything. When it would not, the
  // message is counted here just as CserverLog counts it, so that a caller
  // may leave out building its text and the line numbers stay the same.
  bool Admit(unsigned n);
  // Writes what has been collected (one write per file) and flushes every stream.
  void Flush();
  // While on, the lines for log files are collected in memory and written
  // by Flush(), each file's in one system call; standard error is still
  // written at once. The owner must call Flush() before the process waits.
  // What is still collected at exit is written then.
  static void SetCollecting(bool on);
  // While on, a log file that stops taking its lines (a full disk, a file
  // removed with its folder) is reported once on standard error, and again
  // when its lines are written once more. Checked when collected lines are
  // written.
  static void SetFailureNotice(bool on);
  // While on, standard error takes each message as one line for the
  // journal: a "<N>" priority (3 for errors and fatal errors, 6 for info, 7
  // for moreinfo), the category, and the text with its line feeds as spaces.
  static void SetJournalLines(bool on);
  static std::string JournalLine(const char* category, const OmUniString& text);
  bool ReOpen();
  void HaveForked();

  // The destination that stands for standard error.
  static const char* GetStdErrStr();
  // Process id used in file names and lines (defaults to getpid()).
  static void SetPid(int pid);
  static int Pid();
  static const OmUniString& LogDirectory();
  static unsigned long MessageCount();

  // Escapes text for a structured line: % , = and line feed.
  static OmUniString EscapeStructured(const OmUniString& text);

  static void SetProcInfo(const OmUniString& info);
  static const OmUniString& ProcInfo();

  // Gives the open log files to the user a process goes on as, so that it
  // can open them again; false if any could not be given.
  static bool HandFilesTo(unsigned uid, unsigned gid);
};

#endif  // QUELM_FOUNDATION_LOG_OMLOG_H_
