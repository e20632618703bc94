#ifndef QUELM_FOUNDATION_STRING_OMFILE_H_
#define QUELM_FOUNDATION_STRING_OMFILE_H_

#include <cstdint>

#include <string>

#include "foundation/string/OmByteBuffer.h"
#include "foundation/string/OmError.h"
#include "foundation/string/OmUniString.h"

// An open descriptor. Read and Write make one system call and report a
// transfer result. The destructor closes the descriptor.
class OmFile {
 public:
  enum Result { ioError = 0, ioPartial = 1, ioComplete = 2, ioEndOfFile = 3 };
  // kQuietSocket: an Internet socket whose writes to a closed or reset peer
  // fail with EPIPE instead of raising SIGPIPE.
  enum Kind { kFile = 0, kLocalSocket = 1, kInetSocket = 2, kQuietSocket = 3 };
  struct RecvFDInfo {
    int fd = -1;        // the received descriptor
    long dataBytes = 0; // ordinary bytes that came with it
  };

  OmFile() = default;
  explicit OmFile(int fd, Kind kind = kFile) : fd_(fd), kind_(kind) {}
  virtual ~OmFile();
  OmFile(const OmFile&) = delete;
  OmFile& operator=(const OmFile&) = delete;

  bool Open(const char* path, int flags, int mode = 0666);
  virtual int Read(void* buf, long len, long& done);
  virtual int Write(const void* buf, long len, long& done);
  // Descriptor passing over a local socket; same results as Read/Write.
  virtual int SendFD(int fd);
  virtual int RecvFD(RecvFDInfo& info);

  bool Close();  // a second Close is a successful no-op
  bool SetBlocking(bool blocking);
  bool SetCloseOnExec(bool on) { return SetCloseOnExec(fd_, on); }
  static bool SetCloseOnExec(int fd, bool on);
  bool LockF(int cmd, long len);
  long LSeek(long offset, int whence);
  bool FTruncate(long length);
  long AmountAvailable();  // bytes waiting to be read, -1 on failure

  int Fd() const { return fd_; }
  void SetFd(int fd, Kind kind = kFile) { fd_ = fd; kind_ = kind; }
  int Release() { int fd = fd_; fd_ = -1; return fd; }  // gives up ownership
  Kind GetKind() const { return kind_; }
  void SetKind(Kind k) { kind_ = k; }
  bool IsDescriptorPassing() const { return kind_ == kLocalSocket; }
  const OmUnixError& LastError() const { return error_; }

  // Paths are given in the file-system encoding (UTF-8).
  static bool DoesPathExist(const char* path);
  static bool IsDirectory(const char* path);
  static long Length(const char* path);
  static long AccessTime(const char* path);
  static long CreateTime(const char* path);
  static long ModTime(const char* path);
  static bool GetCWD(OmUniString& out);
  static void RationalisePath(OmUniString& path);
  static bool IsSubdir(const OmUniString& parent, const OmUniString& child);
  static OmUniString GeneratePrintableName(const char* name);
  static bool ReadFile(const char* path, OmByteBuffer& out);
  // Reads a regular file of at most maxBytes; anything else (a FIFO, a device,
  // a larger file) is not read and gives false.
  static bool ReadFile(const char* path, OmByteBuffer& out, unsigned long maxBytes);
  // Opens (flags may hold O_CREAT) a file this process owns: never through a
  // symbolic link, never a FIFO or device, never one another user owns. The
  // open descriptor, or -1: then why says what was found instead, or is
  // empty when the open itself failed (errno tells).
  static int OpenOwnFile(const char* path, int flags, int mode, std::string& why);
  static bool WriteFile(const char* path, const OmByteBuffer& data);

 protected:
  void GenerateOpenError(int err, const char* path, int flags, int mode);
  void RecordError(int err, const char* call, long len);
  int TransferResult(long n, long len, long& done, bool reading);

  int fd_ = -1;
  Kind kind_ = kFile;  // beside fd_: no padding in every connection's two files
  OmUnixError error_;
};

#endif  // QUELM_FOUNDATION_STRING_OMFILE_H_
