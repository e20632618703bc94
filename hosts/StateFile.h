#ifndef QUELM_HOSTS_STATEFILE_H_
#define QUELM_HOSTS_STATEFILE_H_

#include <cstdint>
#include <string>
#include <vector>

// The subscriptions on disk, so that a restart or a crash loses none.
//
// An append-only log: one line per create ("+") and per kill or expiry
// ("-"), each written and synced before the command's reply goes out. The
// log is rewritten whole (a new file, synced, renamed over the old one) at
// start-up and whenever its dead lines outnumber the live ones, so a create
// costs one short write and one sync however many hosts there are, and a
// crash at any instant leaves either the old or the new file.
//
// Each line ends in a checksum of the rest, so a damaged or cut line is
// told from a good one and skipped.
class StateFile {
 public:
  // One subscription as created; rates and frequencies in seconds, the
  // expiry in wall-clock seconds.
  struct Entry {
    unsigned id = 0;
    unsigned port = 0;
    unsigned sampleRate = 0;
    unsigned windowSize = 0;
    unsigned replyFrequency = 0;
    unsigned percentChange = 0;
    unsigned flags = 0;
    uint32_t expiry = 0;
    std::string name;
    std::string text;
  };
  // What a log's text holds: the live entries in creation order, and the
  // first line (1-based) that could not be read, 0 when every line could.
  struct Replay {
    std::vector<Entry> entries;
    unsigned firstBadLine = 0;
    unsigned badLines = 0;
    unsigned lines = 0;  // complete lines read, the header included
  };

  static Replay parse(const std::string& text);
  static std::string addLine(const Entry& entry);
  static std::string removeLine(unsigned id);

  explicit StateFile(std::string path) : path_(std::move(path)) {}
  ~StateFile();
  StateFile(const StateFile&) = delete;
  StateFile& operator=(const StateFile&) = delete;

  // Reads and replays the file; a missing file is an empty state. False,
  // with the reason in error(), when the file exists but cannot be read.
  bool load(Replay& out);
  // Each appends one line and syncs it; false with the reason in error().
  bool recordAdd(const Entry& entry);
  bool recordRemove(unsigned id);
  // Replaces the file with the live entries alone.
  bool rewrite(const std::vector<Entry>& live);
  // True when the log has grown to more than twice the live entries.
  bool wantsRewrite(size_t live) const { return lines_ > 2 * live + kSlack; }

  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }

 private:
  static constexpr size_t kSlack = 64;  // lines a small list may waste
  bool append(const std::string& line);
  bool fail(const char* call, int err);

  std::string path_;
  std::string error_;
  int fd_ = -1;       // open for appending once rewritten
  size_t lines_ = 0;  // lines in the file, the header included
};

#endif  // QUELM_HOSTS_STATEFILE_H_
