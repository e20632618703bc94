#include "foundation/string/OmFile.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/string/OmOSStream.h"

OmFile::~OmFile() { Close(); }

bool OmFile::Open(const char* path, int flags, int mode) {
  Close();
  fd_ = ::open(path, flags, mode);
  if (fd_ < 0) {
    GenerateOpenError(errno, path, flags, mode);
    return false;
  }
  kind_ = kFile;
  return true;
}

void OmFile::GenerateOpenError(int err, const char* path, int flags, int mode) {
  OmOSStream args;
  args << path << ", ";
  switch (flags & O_ACCMODE) {
    case O_WRONLY: args << "WRONLY"; break;
    case O_RDWR: args << "RDWR"; break;
    default: args << "RDONLY"; break;
  }
  if (flags & O_CREAT) args << " | CREAT";
  if (flags & O_TRUNC) args << " | TRUNC";
  if (flags & O_EXCL) args << " | EXCL";
  if (flags & O_NONBLOCK) args << " | NONBLOCK";
  if (flags & O_APPEND) args << " | APPEND";
  if (flags & O_NDELAY && !(flags & O_NONBLOCK)) args << " | NDELAY";
  if (flags & O_NOCTTY) args << " | NOCTTY";
  char octal[16];
  std::snprintf(octal, sizeof octal, ", 0%o", static_cast<unsigned>(mode));
  args << octal;
  error_.Set(err, "open", args.Str());
}

void OmFile::RecordError(int err, const char* call, long len) {
  OmOSStream args;
  args << fd_ << ", " << len;
  error_.Set(err, call, args.Str());
}

// The transfer result of one read or write that returned n of len bytes.
int OmFile::TransferResult(long n, long len, long& done, bool reading) {
  if (n < 0) {
    done = 0;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ioPartial;
    RecordError(errno, reading ? "read" : "write", len);
    return ioError;
  }
  done = n;
  if (reading && n == 0 && len > 0) return ioEndOfFile;
  return n == len ? ioComplete : ioPartial;
}

int OmFile::Read(void* buf, long len, long& done) {
  return TransferResult(::read(fd_, buf, static_cast<size_t>(len)), len, done, true);
}

int OmFile::Write(const void* buf, long len, long& done) {
  if (kind_ == kQuietSocket) {
    return TransferResult(::send(fd_, buf, static_cast<size_t>(len), MSG_NOSIGNAL), len, done, false);
  }
  return TransferResult(::write(fd_, buf, static_cast<size_t>(len)), len, done, false);
}

namespace {

// A message of one data byte with room for one passed descriptor.
struct FdMessage {
  FdMessage() {
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
  }
  FdMessage(const FdMessage&) = delete;
  FdMessage& operator=(const FdMessage&) = delete;

  char byte = 0;
  iovec iov{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr msg{};
};

}  // namespace

int OmFile::SendFD(int fd) {
  FdMessage m;
  msghdr& msg = m.msg;
  cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
  cmsg->cmsg_level = SOL_SOCKET;
  cmsg->cmsg_type = SCM_RIGHTS;
  cmsg->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
  const ssize_t n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ioPartial;
    RecordError(errno, "sendmsg", fd);
    return ioError;
  }
  return n == 1 ? ioComplete : ioPartial;
}

int OmFile::RecvFD(RecvFDInfo& info) {
  FdMessage m;
  msghdr& msg = m.msg;
  info.fd = -1;
  info.dataBytes = 0;
  const ssize_t n = ::recvmsg(fd_, &msg, MSG_CMSG_CLOEXEC);
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return ioPartial;
    RecordError(errno, "recvmsg", 1);
    return ioError;
  }
  if (n == 0) return ioEndOfFile;
  info.dataBytes = n;
  for (cmsghdr* cmsg = CMSG_FIRSTHDR(&msg); cmsg != nullptr; cmsg = CMSG_NXTHDR(&msg, cmsg)) {
    if (cmsg->cmsg_level == SOL_SOCKET && cmsg->cmsg_type == SCM_RIGHTS) {
      std::memcpy(&info.fd, CMSG_DATA(cmsg), sizeof(int));
      return ioComplete;
    }
  }
  return ioPartial;
}

bool OmFile::Close() {
  if (fd_ < 0) return true;
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) {
    OmOSStream args;
    args << fd;
    error_.Set(errno, "close", args.Str());
    return false;
  }
  return true;
}

bool OmFile::SetBlocking(bool blocking) {
  const int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0) {
    OmOSStream args;
    args << fd_ << ", F_GETFL";
    error_.Set(errno, "fcntl", args.Str());
    return false;
  }
  const int wanted = blocking ? (flags & ~O_NONBLOCK) : (flags | O_NONBLOCK);
  if (wanted != flags && ::fcntl(fd_, F_SETFL, wanted) < 0) {
    OmOSStream args;
    args << fd_ << ", F_SETFL, " << wanted;
    error_.Set(errno, "fcntl", args.Str());
    return false;
  }
  return true;
}

bool OmFile::SetCloseOnExec(int fd, bool on) {
  const int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) return false;
  const int wanted = on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC);
  return wanted == flags || ::fcntl(fd, F_SETFD, wanted) == 0;
}

bool OmFile::LockF(int cmd, long len) {
  if (::lockf(fd_, cmd, len) == 0) return true;
  RecordError(errno, "lockf", len);
  return false;
}

long OmFile::LSeek(long offset, int whence) {
  const off_t pos = ::lseek(fd_, offset, whence);
  if (pos < 0) RecordError(errno, "lseek", offset);
  return static_cast<long>(pos);
}

bool OmFile::FTruncate(long length) {
  if (::ftruncate(fd_, length) == 0) return true;
  RecordError(errno, "ftruncate", length);
  return false;
}

long OmFile::AmountAvailable() {
  int n = 0;
  if (::ioctl(fd_, FIONREAD, &n) < 0) {
    RecordError(errno, "ioctl", FIONREAD);
    return -1;
  }
  return n;
}

bool OmFile::DoesPathExist(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0;
}

bool OmFile::IsDirectory(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

long OmFile::Length(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

long OmFile::AccessTime(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? static_cast<long>(st.st_atime) : -1;
}

long OmFile::CreateTime(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? static_cast<long>(st.st_ctime) : -1;
}

long OmFile::ModTime(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? static_cast<long>(st.st_mtime) : -1;
}

bool OmFile::GetCWD(OmUniString& out) {
  char buf[PATH_MAX];
  if (::getcwd(buf, sizeof buf) == nullptr) return false;
  out = OmUniString::FromUtf8(buf);
  return true;
}

void OmFile::RationalisePath(OmUniString& path) {
  std::vector<OmUniString> parts, kept;
  Split(path, parts, '/');
  const bool absolute = !path.IsEmpty() && path[0] == '/';
  for (const OmUniString& part : parts) {
    if (part.IsEmpty() || part == ".") continue;
    if (part == "..") {
      if (!kept.empty() && kept.back() != "..") {
        kept.pop_back();
      } else if (!absolute) {
        kept.push_back(part);
      }
      continue;
    }
    kept.push_back(part);
  }
  OmUniString result = Join(kept, '/');
  if (absolute) result.Insert(0, "/");
  if (result.IsEmpty()) result = absolute ? "/" : ".";
  path = result;
}

bool OmFile::IsSubdir(const OmUniString& parent, const OmUniString& child) {
  OmUniString p = parent, c = child;
  RationalisePath(p);
  RationalisePath(c);
  if (p == c) return true;
  if (!(p == "/")) p += "/";
  return c.Search(p) == 0;
}

OmUniString OmFile::GeneratePrintableName(const char* name) {
  OmUniString out;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
    if (*p >= 32 && *p < 127) {
      out.Append(*p);
    } else {
      out += "\\x";
      out += Hex(static_cast<unsigned char>(*p));
    }
  }
  return out;
}

bool OmFile::ReadFile(const char* path, OmByteBuffer& out) {
  OmFile file;
  if (!file.Open(path, O_RDONLY | O_CLOEXEC)) return false;
  OmByteBuffer data;
  for (;;) {
    const unsigned long have = data.Length();
    data.Reserve(have + 4096);
    data.SetLength(data.Capacity());
    const ssize_t n = ::read(file.Fd(), data.MutableData() + have, data.Length() - have);
    if (n < 0 && errno == EINTR) {
      data.SetLength(have);
      continue;
    }
    if (n <= 0) {
      data.SetLength(have);
      if (n < 0) return false;
      break;
    }
    data.SetLength(have + static_cast<unsigned long>(n));
  }
  out = data;
  return true;
}

bool OmFile::ReadFile(const char* path, OmByteBuffer& out, unsigned long maxBytes) {
  // Non-blocking: opening a FIFO for reading would wait for a writer.
  OmFile file;
  if (!file.Open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)) return false;
  struct stat st;
  if (fstat(file.Fd(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<unsigned long long>(st.st_size) > maxBytes) {
    return false;
  }
  OmByteBuffer data;
  data.Reserve(maxBytes + 1);
  data.SetLength(maxBytes + 1);
  unsigned long have = 0;
  // One byte over the bound tells a file that grew since fstat.
  while (have <= maxBytes) {
    const ssize_t n = ::read(file.Fd(), data.MutableData() + have, maxBytes + 1 - have);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    have += static_cast<unsigned long>(n);
  }
  if (have > maxBytes) return false;
  data.SetLength(have);
  out = data;
  return true;
}

int OmFile::OpenOwnFile(const char* path, int flags, int mode, std::string& why) {
  // Non-blocking so that opening a FIFO does not wait; the flag is dropped
  // once the file is known to be regular.
  why.clear();
  const int fd = ::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode);
  if (fd < 0) {
    if (errno == ELOOP) why = "it is a symbolic link";
    if (errno == ENXIO) why = "it is not a regular file";  // a FIFO no one reads
    return -1;
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    why = "it is not a regular file";
  } else if (st.st_uid != geteuid()) {
    why = "it belongs to user " + std::to_string(st.st_uid);
  } else {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
  }
  ::close(fd);
  return -1;
}

bool OmFile::WriteFile(const char* path, const OmByteBuffer& data) {
  OmFile file;
  if (!file.Open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) return false;
  const unsigned char* p = data.Data();
  unsigned long left = data.Length();
  while (left > 0) {
    const ssize_t n = ::write(file.Fd(), p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<unsigned long>(n);
  }
  return file.Close();
}
