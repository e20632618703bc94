#include "hosts/StateFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unordered_map>

namespace {

constexpr char kHeader[] = "quelmloadprobe-state 1";

// FNV-1a: enough to tell a cut or damaged line from a good one.
uint32_t checksum(const char* data, size_t n) {
  uint32_t h = 2166136261u;
  for (size_t i = 0; i < n; ++i) {
    h ^= static_cast<unsigned char>(data[i]);
    h *= 16777619u;
  }
  return h;
}

std::string sealed(const std::string& payload) {
  char sum[16];
  std::snprintf(sum, sizeof sum, " %08x\n", checksum(payload.data(), payload.size()));
  return payload + sum;
}

// Names and texts may hold anything: spaces, line feeds, other bytes. The
// leading '=' keeps an empty one a token of its own.
std::string escaped(const std::string& s) {
  std::string out = "=";
  for (const unsigned char c : s) {
    if (c > ' ' && c < 0x7f && c != '%') {
      out += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02x", c);
      out += hex;
    }
  }
  return out;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

bool unescaped(const std::string& token, std::string& out) {
  if (token.empty() || token[0] != '=') return false;
  out.clear();
  for (size_t i = 1; i < token.size(); ++i) {
    if (token[i] != '%') {
      out += token[i];
      continue;
    }
    if (i + 2 >= token.size()) return false;
    const int hi = hexDigit(token[i + 1]);
    const int lo = hexDigit(token[i + 2]);
    if (hi < 0 || lo < 0) return false;
    out += static_cast<char>(hi * 16 + lo);
    i += 2;
  }
  return true;
}

bool number(const std::string& token, uint32_t& out) {
  if (token.empty() || token.size() > 10) return false;
  uint64_t v = 0;
  for (const char c : token) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > UINT32_MAX) return false;
  out = static_cast<uint32_t>(v);
  return true;
}

std::vector<std::string> tokens(const std::string& payload) {
  std::vector<std::string> out;
  size_t from = 0;
  for (;;) {
    const size_t space = payload.find(' ', from);
    out.push_back(payload.substr(from, space - from));
    if (space == std::string::npos) return out;
    from = space + 1;
  }
}

// The payload of a complete line whose checksum holds.
bool checkedPayload(const std::string& line, std::string& payload) {
  if (line.size() < 10 || line[line.size() - 9] != ' ') return false;
  payload = line.substr(0, line.size() - 9);
  uint32_t sum = 0;
  for (size_t i = line.size() - 8; i < line.size(); ++i) {
    const int d = hexDigit(line[i]);
    if (d < 0) return false;
    sum = sum * 16 + static_cast<uint32_t>(d);
  }
  return sum == checksum(payload.data(), payload.size());
}

bool parseAdd(const std::vector<std::string>& t, StateFile::Entry& e) {
  if (t.size() != 11) return false;
  uint32_t* numbers[] = {&e.id,             &e.port,          &e.sampleRate, &e.windowSize,
                         &e.replyFrequency, &e.percentChange, &e.flags,      &e.expiry};
  for (size_t i = 0; i < 8; ++i) {
    if (!number(t[i + 1], *numbers[i])) return false;
  }
  return unescaped(t[9], e.name) && unescaped(t[10], e.text) && !e.name.empty();
}

}  // namespace

StateFile::Replay StateFile::parse(const std::string& text) {
  Replay replay;
  std::vector<Entry> entries;
  std::vector<bool> alive;
  std::unordered_map<unsigned, size_t> at;  // live id -> entries index
  const auto bad = [&replay](unsigned line) {
    if (replay.badLines++ == 0) replay.firstBadLine = line;
  };

  size_t from = 0;
  unsigned lineNo = 0;
  bool headerSeen = false;
  while (from < text.size()) {
    ++lineNo;
    const size_t end = text.find('\n', from);
    if (end == std::string::npos) {  // cut short: never finished writing
      bad(lineNo);
      break;
    }
    const std::string line = text.substr(from, end - from);
    from = end + 1;
    ++replay.lines;
    std::string payload;
    const bool intact = checkedPayload(line, payload);
    if (!headerSeen) {
      // Another file, or one of a version this probe does not know: none of
      // its lines can be trusted.
      if (!intact || payload != kHeader) {
        bad(lineNo);
        break;
      }
      headerSeen = true;
      continue;
    }
    if (!intact) {
      bad(lineNo);
      continue;
    }
    const std::vector<std::string> t = tokens(payload);
    Entry e;
    uint32_t id = 0;
    if (t[0] == "+" && parseAdd(t, e)) {
      const auto it = at.find(e.id);
      if (it != at.end()) alive[it->second] = false;
      at[e.id] = entries.size();
      entries.push_back(std::move(e));
      alive.push_back(true);
    } else if (t[0] == "-" && t.size() == 2 && number(t[1], id)) {
      const auto it = at.find(id);
      if (it != at.end()) {
        alive[it->second] = false;
        at.erase(it);
      }
    } else {
      bad(lineNo);
    }
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    if (alive[i]) replay.entries.push_back(std::move(entries[i]));
  }
  return replay;
}

std::string StateFile::addLine(const Entry& e) {
  char numbers[128];
  std::snprintf(numbers, sizeof numbers, "+ %u %u %u %u %u %u %u %u ", e.id, e.port, e.sampleRate,
                e.windowSize, e.replyFrequency, e.percentChange, e.flags, e.expiry);
  return sealed(numbers + escaped(e.name) + " " + escaped(e.text));
}

std::string StateFile::removeLine(unsigned id) { return sealed("- " + std::to_string(id)); }

StateFile::~StateFile() {
  if (fd_ >= 0) close(fd_);
}

bool StateFile::fail(const char* call, int err) {
  error_ = std::string(call) + " " + path_ + ": " + std::strerror(err);
  return false;
}

bool StateFile::load(Replay& out) {
  out = Replay();
  const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? true : fail("open", errno);
  std::string text;
  char buf[65536];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      close(fd);
      return fail("read", err);
    }
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  out = parse(text);
  return true;
}

bool StateFile::append(const std::string& line) {
  if (fd_ < 0) {
    fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd_ < 0) return fail("open", errno);
  }
  // One write: a line under a page is never torn by a crash of the process.
  const ssize_t n = write(fd_, line.data(), line.size());
  if (n != static_cast<ssize_t>(line.size())) {
    // A partial line fails its checksum and is skipped when read; the
    // line feed ends it so the next line starts fresh.
    const int err = n < 0 ? errno : ENOSPC;
    if (n > 0 && write(fd_, "\n", 1) == 1) ++lines_;
    return fail("write", err);
  }
  ++lines_;
  if (fdatasync(fd_) != 0) return fail("fdatasync", errno);
  return true;
}

bool StateFile::recordAdd(const Entry& entry) { return append(addLine(entry)); }

bool StateFile::recordRemove(unsigned id) { return append(removeLine(id)); }

bool StateFile::rewrite(const std::vector<Entry>& live) {
  std::string text = sealed(kHeader);
  for (const Entry& e : live) text += addLine(e);
  const std::string fresh = path_ + ".new";
  const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  if (fd < 0) return fail("open", errno);
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      const int err = n < 0 ? errno : ENOSPC;
      close(fd);
      unlink(fresh.c_str());
      return fail("write", err);
    }
    done += static_cast<size_t>(n);
  }
  if (fsync(fd) != 0) {
    const int err = errno;
    close(fd);
    unlink(fresh.c_str());
    return fail("fsync", err);
  }
  close(fd);
  if (rename(fresh.c_str(), path_.c_str()) != 0) {
    const int err = errno;
    unlink(fresh.c_str());
    return fail("rename", err);
  }
  // The rename itself is durable only once the folder is synced.
  const size_t slash = path_.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
  const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    fsync(dir);
    close(dir);
  }
  // Opened for the next records at once: a probe that goes on as another
  // user keeps appending through it.
  if (fd_ >= 0) close(fd_);
  fd_ = open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  lines_ = live.size() + 1;
  return true;
}
