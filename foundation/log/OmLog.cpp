#include "foundation/log/OmLog.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "foundation/string/OmEnv.h"
#include "foundation/string/OmFile.h"
#include "foundation/string/OmTimeVal.h"

namespace {

const char kProduct[] = "Koramet Brelvane";
// The console sink of the server; written in filters, it means standard error.
const char kStdErrDestination[] = ".../_beans/quelm.log.ConsoleSink";
const char kPidMarker[] = "%%PID%%";

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

// One destination of the numbered side: a structured (.csl) file, a plain
// log file, or standard error. The name keeps its %%PID%% until opened.
struct CsLogFile {
  enum Kind { kPlain, kStructured, kStdErr };

  OmUniString pattern;
  Kind kind = kPlain;
  std::unique_ptr<FILE, FileCloser> stream;
  std::string pending;  // lines collected for one write (files only)
  bool failing = false;  // reported as failing, with failure notices on
  long checkedSecond = 0;  // a removed file is looked for once a second

  FILE* Stream() const { return kind == kStdErr ? stderr : stream.get(); }
};

// Destinations of one message number.
using CsLogAction = std::vector<CsLogFile*>;

struct LogState {
  OmUniString procinfo;
  OmUniString logdir;
  int mypid = 0;    // 0: the real process id
  int realpid = 0;  // getpid(), asked once per process
  bool collecting = false;
  bool failureNotice = false;
  bool journalLines = false;
  int collector = 0;  // the process whose lines are collected
  std::vector<std::unique_ptr<CsLogFile>> csfiles;
  std::vector<CsLogAction> cslookup;
  unsigned long counter = 0;
  // The formatted seconds of the last time stamp, reused within that second.
  uint32_t stampSecond = 0;
  bool stampValid = false;
  char stampText[32] = {};
};

// Built on first use so loggers constructed before main can log, and never
// destroyed so that messages from other static destructors are still safe.
// Lines are written at once or, while collecting, by Flush and at exit, so
// nothing is lost when the process ends.
LogState& State() {
  static LogState* state = new LogState;
  return *state;
}

void ForgetPidInChild() { State().realpid = 0; }

// Every line carries the process id: ask the system once, and again after a fork.
int RealPid() {
  LogState& st = State();
  if (st.realpid == 0) {
    static const bool watched = pthread_atfork(nullptr, nullptr, ForgetPidInChild) == 0;
    const int pid = static_cast<int>(getpid());
    if (!watched) return pid;
    st.realpid = pid;
  }
  return st.realpid;
}

// A file whose lines went nowhere: the write failed, or the file has no
// name left (its folder was removed), so nobody will ever read them.
OmUniString ResolvedPath(const OmUniString& pattern);

bool Lost(CsLogFile& file, bool written) {
  if (!written) return true;
  const long second = static_cast<long>(OmEnv::Current().Now().seconds);
  if (second == file.checkedSecond && !file.failing) return false;
  file.checkedSecond = second;
  struct stat info {};
  return fstat(fileno(file.Stream()), &info) == 0 && info.st_nlink == 0;
}

void NoticeFailure(CsLogFile& file, bool written, int error) {
  if (file.kind == CsLogFile::kStdErr || Lost(file, written) == file.failing) return;
  file.failing = !file.failing;
  const std::string path = ResolvedPath(file.pattern).AsUtf8();
  if (file.failing) {
    fprintf(stderr, "%s The log file \"%s\" does not take its messages (%s); messages are lost until it does.\n",
            kProduct, path.c_str(), written ? "the file has been removed" : strerror(error));
  } else {
    fprintf(stderr, "%s The log file \"%s\" takes its messages again.\n", kProduct, path.c_str());
  }
  fflush(stderr);
}

// Writes the collected lines of one file. A child process that inherited
// them from its parent drops them: they are the parent's to write.
void WritePending(CsLogFile& file) {
  if (file.pending.empty()) return;
  FILE* out = file.Stream();
  if (out != nullptr && State().collector == RealPid()) {
    const int fd = fileno(out);
    const char* p = file.pending.data();
    size_t left = file.pending.size();
    int error = 0;
    while (left > 0) {
      const ssize_t n = ::write(fd, p, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error = n < 0 ? errno : ENOSPC;
        break;
      }
      p += n;
      left -= static_cast<size_t>(n);
    }
    if (State().failureNotice) NoticeFailure(file, left == 0, error);
  }
  file.pending.clear();
  // A burst need not keep its memory for good.
  if (file.pending.capacity() > (256u << 10)) file.pending.shrink_to_fit();
}

void WriteAllPending() {
  for (const auto& f : State().csfiles) WritePending(*f);
}

// At exit nothing may stay behind; anything logged later goes out at once.
void WritePendingAtExit() {
  State().collecting = false;
  WriteAllPending();
}

OmUniString ResolvedPath(const OmUniString& pattern) {
  OmUniString name(pattern);
  name.Substitute(kPidMarker, OmUniString::CreateFromUnsigned(static_cast<unsigned>(OmLog::Pid())));
  const OmUniString& dir = State().logdir;
  if (dir.IsEmpty()) return name;
  if (dir[dir.Length() - 1] == '/') return dir + name;
  return dir + "/" + name;
}

bool OpenFile(CsLogFile& file) {
  if (file.kind == CsLogFile::kStdErr) return true;
  WritePending(file);
  file.stream.reset();
  std::string path = ResolvedPath(file.pattern).AsUtf8();
  // The log folder may be one other users can write to: a link or a file
  // they planted there is not written through. The measuring tool must not
  // inherit log descriptors, and logs are private.
  std::string why;
  const int fd = OmFile::OpenOwnFile(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600, why);
  FILE* f = fd >= 0 ? fdopen(fd, "a") : nullptr;
  if (f == nullptr) {
    if (fd >= 0) close(fd);
    fprintf(stderr, "%s Failed to open file \"%s\" for error/log output.\n", kProduct, path.c_str());
    if (!why.empty()) fprintf(stderr, "%s The file \"%s\" is not written: %s.\n", kProduct, path.c_str(), why.c_str());
    fflush(stderr);
    return false;
  }
  fchmod(fd, 0600);
  file.stream.reset(f);
  return true;
}

// Splits a category or pattern into exactly three parts at "/".
bool ThreeParts(const OmUniString& text, std::vector<OmUniString>& parts) {
  parts.clear();
  Split(text, parts, '/');
  return parts.size() == 3;
}

struct Stamp {
  OmTimeVal when;
  std::string text;  // local time with milliseconds
};

Stamp MakeStamp() {
  LogState& st = State();
  Stamp stamp;
  stamp.when = OmTimeVal::now();
  if (!st.stampValid || st.stampSecond != stamp.when.seconds) {
    time_t t = static_cast<time_t>(stamp.when.seconds);
    struct tm local;
    localtime_r(&t, &local);
    strftime(st.stampText, sizeof st.stampText, "%Y/%m/%d %H:%M:%S", &local);
    st.stampSecond = stamp.when.seconds;
    st.stampValid = true;
  }
  char millis[16];
  snprintf(millis, sizeof millis, ".%03u", static_cast<unsigned>(stamp.when.microseconds / 1000 % 1000));
  stamp.text = std::string(st.stampText) + millis;
  return stamp;
}

}  // namespace

OmLog* OmLog::the_logger = nullptr;

OmLog::~OmLog() {
  if (the_logger == this) the_logger = nullptr;
}

const char* const* OmLog::MessageStrings() const {
  static const char* const kNone[] = {nullptr};
  return kNone;
}

unsigned OmLog::NumLogs() const {
  const char* const* table = MessageStrings();
  unsigned n = 0;
  while (table[n] != nullptr && table[n][0] != '\0') ++n;
  return n;
}

void OmLog::InitLogs(OmLog* logger, const OmUniString& directory) {
  the_logger = logger;
  State().logdir = directory;
}

bool OmLog::SetupCSFilters(const std::vector<OmUniString>& clauses) {
  LogState& st = State();
  st.cslookup.assign(NumLogs(), CsLogAction());
  WriteAllPending();
  st.csfiles.clear();

  const char* const* categories = MessageStrings();
  bool ok = true;
  std::vector<OmUniString> pattern;
  std::vector<OmUniString> category;
  for (const OmUniString& clause : clauses) {
    if (clause.IsEmpty()) continue;  // from a trailing comma
    long colon = clause.Search(':');
    if (colon < 0 || !ThreeParts(clause.SubString(0, static_cast<unsigned long>(colon)), pattern)) {
      ok = false;
      continue;
    }
    OmUniString destination = clause.SubString(static_cast<unsigned long>(colon) + 1);
    if (destination.IsEmpty()) {
      ok = false;
      continue;
    }

    CsLogFile* file = nullptr;
    for (const auto& f : st.csfiles) {
      if (f->pattern == destination) file = f.get();
    }
    if (file == nullptr) {
      auto created = std::make_unique<CsLogFile>();
      created->pattern = destination;
      if (destination == kStdErrDestination) {
        created->kind = CsLogFile::kStdErr;
      } else if (OmWildcardMatch("*.csl", destination)) {
        created->kind = CsLogFile::kStructured;
      }
      if (!OpenFile(*created)) ok = false;
      file = created.get();
      st.csfiles.push_back(std::move(created));
    }

    for (unsigned n = 0; n < st.cslookup.size(); ++n) {
      if (!ThreeParts(categories[n], category)) continue;
      bool match = true;
      for (int k = 0; k < 3 && match; ++k) match = OmWildcardMatch(pattern[k], category[k]);
      if (!match) continue;
      CsLogAction& action = st.cslookup[n];
      bool present = false;
      for (CsLogFile* f : action) present = present || f == file;
      if (!present) action.push_back(file);
    }
  }
  return ok;
}

bool OmLog::Gen(unsigned) const {
  // Only the plain filter could turn messages off, and this library never
  // switches it on.
  return true;
}

bool OmLog::CsGen(unsigned n) const {
  const LogState& st = State();
  return n < st.cslookup.size() && !st.cslookup[n].empty();
}

bool OmLog::Admit(unsigned n) {
  if (CsGen(n)) return true;
  ++State().counter;
  return false;
}

void OmLog::CserverLog(unsigned n, const OmUniString& text) {
  LogState& st = State();
  ++st.counter;
  if (n >= st.cslookup.size() || st.cslookup[n].empty()) return;

  const char* category = MessageStrings()[n];
  Stamp stamp = MakeStamp();
  std::string pid = std::to_string(Pid());
  std::string plain;  // each format is built on first need
  std::string structured;
  std::string journal;
  for (CsLogFile* file : st.cslookup[n]) {
    FILE* out = file->Stream();
    if (out == nullptr) continue;  // closed, or failed to open
    const std::string* line;
    if (file->kind == CsLogFile::kStdErr && st.journalLines) {
      if (journal.empty()) journal = JournalLine(category, text);
      line = &journal;
    } else if (file->kind == CsLogFile::kStructured) {
      if (structured.empty()) {
        uint64_t systime = uint64_t{stamp.when.seconds} * 100000 + stamp.when.microseconds / 10;
        structured = std::string("category=") + category + ",date=" + stamp.text + ",pid=" + pid +
                     ",systime=" + std::to_string(systime) +
                     ",message=" + EscapeStructured(text).AsUtf8() + "\n";
      }
      line = &structured;
    } else {
      if (plain.empty()) {
        plain = stamp.text + "\t (pid " + pid + ")\t" + category + "\t#" +
                std::to_string(st.counter) + "\t" + kProduct + "((legacy))\n" + text.AsUtf8() +
                "\n";
      }
      line = &plain;
    }
    if (st.collecting && file->kind != CsLogFile::kStdErr) {
      file->pending += *line;
      continue;
    }
    fwrite(line->data(), 1, line->size(), out);
    fflush(out);
  }
}

void OmLog::Flush() {
  for (const auto& f : State().csfiles) {
    WritePending(*f);
    if (FILE* out = f->Stream()) fflush(out);
  }
}

void OmLog::SetFailureNotice(bool on) { State().failureNotice = on; }

void OmLog::SetJournalLines(bool on) { State().journalLines = on; }

std::string OmLog::JournalLine(const char* category, const OmUniString& text) {
  // The journal's priorities: err, info and debug.
  const std::string c = category;
  const size_t slash = c.rfind('/');
  const std::string severity = slash == std::string::npos ? c : c.substr(slash + 1);
  const char* priority = severity == "info" ? "<6>" : severity == "moreinfo" ? "<7>" : "<3>";
  std::string line = priority + c + ": ";
  for (const char ch : text.AsUtf8()) line += ch == '\n' ? ' ' : ch;
  return line + "\n";
}

void OmLog::SetCollecting(bool on) {
  LogState& st = State();
  if (!on) WriteAllPending();
  static const bool registered = std::atexit(WritePendingAtExit) == 0;
  st.collecting = on && registered;
  st.collector = RealPid();
}

bool OmLog::ReOpen() {
  bool ok = true;
  for (const auto& f : State().csfiles) {
    if (!OpenFile(*f)) ok = false;
  }
  return ok;
}

void OmLog::HaveForked() {
  // Files are named with the process id when opened, so the next ReOpen or
  // set-up in the child picks up its own id.
  for (const auto& f : State().csfiles) {
    WritePending(*f);
    f->stream.reset();
  }
}

const char* OmLog::GetStdErrStr() { return kStdErrDestination; }

void OmLog::SetPid(int pid) { State().mypid = pid; }

int OmLog::Pid() {
  const int pid = State().mypid;
  return pid != 0 ? pid : RealPid();
}

const OmUniString& OmLog::LogDirectory() { return State().logdir; }

unsigned long OmLog::MessageCount() { return State().counter; }

OmUniString OmLog::EscapeStructured(const OmUniString& text) {
  OmUniString out;
  for (unsigned long i = 0; i < text.Length(); ++i) {
    OmUniString::Unit u = text[i];
    switch (u) {
      case '%': out += "%25"; break;
      case '\n': out += "%0a"; break;
      case ',': out += "%2c"; break;
      case '=': out += "%3d"; break;
      default: out.Append(u);
    }
  }
  return out;
}

void OmLog::SetProcInfo(const OmUniString& info) { State().procinfo = info; }

const OmUniString& OmLog::ProcInfo() { return State().procinfo; }

bool OmLog::HandFilesTo(unsigned uid, unsigned gid) {
  bool ok = true;
  for (const auto& f : State().csfiles) {
    if (f->stream && fchown(fileno(f->stream.get()), uid, gid) != 0) ok = false;
  }
  return ok;
}
