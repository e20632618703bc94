#include "foundation/string/OmFile.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "string_test_util.h"

namespace {

bool Contains(const OmUniString& text, const char* part) {
  return text.Search(OmUniString(part)) >= 0;
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Two connected local stream sockets; the first end is non-blocking.
class SocketPairTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    reader_.SetFd(sv[0], OmFile::kLocalSocket);
    writer_.SetFd(sv[1], OmFile::kLocalSocket);
    ASSERT_TRUE(reader_.SetBlocking(false));
  }

  OmFile reader_;
  OmFile writer_;
};

TEST_F(SocketPairTest, SetBlockingTogglesNonBlock) {
  EXPECT_NE(fcntl(reader_.Fd(), F_GETFL) & O_NONBLOCK, 0);
  ASSERT_TRUE(reader_.SetBlocking(true));
  EXPECT_EQ(fcntl(reader_.Fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SocketPairTest, ReadOfAllReadyBytesIsComplete) {
  long done = -1;
  EXPECT_EQ(writer_.Write("0123456789", 10, done), OmFile::ioComplete);
  EXPECT_EQ(done, 10);
  char buf[10];
  done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioComplete);
  EXPECT_EQ(done, 10);
  EXPECT_EQ(std::string(buf, 10), "0123456789");
}

TEST_F(SocketPairTest, ReadOfFewerReadyBytesIsPartial) {
  long done = -1;
  ASSERT_EQ(writer_.Write("abcd", 4, done), OmFile::ioComplete);
  char buf[10];
  done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioPartial);
  EXPECT_EQ(done, 4);
  EXPECT_EQ(std::string(buf, 4), "abcd");
}

TEST_F(SocketPairTest, ReadWithNothingReadyIsPartialWithNothingDone) {
  char buf[10];
  long done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioPartial);
  EXPECT_EQ(done, 0);
}

TEST_F(SocketPairTest, ReadAfterPeerCloseIsEndOfFile) {
  ASSERT_TRUE(writer_.Close());
  char buf[10];
  long done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioEndOfFile);
  EXPECT_EQ(done, 0);
}

TEST_F(SocketPairTest, PendingBytesComeBeforeEndOfFile) {
  long done = 0;
  ASSERT_EQ(writer_.Write("xy", 2, done), OmFile::ioComplete);
  ASSERT_TRUE(writer_.Close());
  char buf[10];
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioPartial);
  EXPECT_EQ(done, 2);
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioEndOfFile);
}

TEST_F(SocketPairTest, WriteBeyondTheSocketBufferIsPartial) {
  // The non-blocking end takes what fits, then nothing.
  std::vector<char> chunk(1 << 20, 'z');
  long done = -1;
  int result = OmFile::ioComplete;
  int rounds = 0;
  while (result == OmFile::ioComplete && rounds++ < 256) {
    result = reader_.Write(chunk.data(), static_cast<long>(chunk.size()), done);
  }
  ASSERT_EQ(result, OmFile::ioPartial);
  EXPECT_LT(done, static_cast<long>(chunk.size()));
  EXPECT_EQ(reader_.Write(chunk.data(), static_cast<long>(chunk.size()), done), OmFile::ioPartial);
  EXPECT_EQ(done, 0);
}

TEST_F(SocketPairTest, AmountAvailableCountsWaitingBytes) {
  EXPECT_EQ(reader_.AmountAvailable(), 0);
  long done = 0;
  ASSERT_EQ(writer_.Write("seven!!", 7, done), OmFile::ioComplete);
  EXPECT_EQ(reader_.AmountAvailable(), 7);
}

TEST_F(SocketPairTest, CloseOnExec) {
  ASSERT_TRUE(reader_.SetCloseOnExec(true));
  EXPECT_NE(fcntl(reader_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_TRUE(reader_.SetCloseOnExec(false));
  EXPECT_EQ(fcntl(reader_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_TRUE(OmFile::SetCloseOnExec(writer_.Fd(), true));
  EXPECT_NE(fcntl(writer_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SocketPairTest, CloseTwiceClosesOnce) {
  int old = reader_.Fd();
  ASSERT_TRUE(reader_.Close());
  EXPECT_EQ(reader_.Fd(), -1);
  errno = 0;
  EXPECT_EQ(fcntl(old, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);

  // Put another descriptor on the old number: the second Close must leave it.
  ASSERT_EQ(dup2(writer_.Fd(), old), old);
  EXPECT_TRUE(reader_.Close());
  EXPECT_TRUE(IsOpen(old));
  close(old);
}

TEST_F(SocketPairTest, DestructorClosesAndReleaseGivesUp) {
  int fd = writer_.Release();
  EXPECT_EQ(writer_.Fd(), -1);
  {
    OmFile owner(fd);
    EXPECT_TRUE(IsOpen(fd));
  }
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(SocketPairTest, PassADescriptor) {
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  EXPECT_EQ(writer_.SendFD(p[1]), OmFile::ioComplete);
  close(p[1]);

  ASSERT_TRUE(reader_.SetBlocking(true));
  OmFile::RecvFDInfo info;
  EXPECT_EQ(reader_.RecvFD(info), OmFile::ioComplete);
  ASSERT_GE(info.fd, 0);
  // The received descriptor is the pipe's write end.
  ASSERT_EQ(write(info.fd, "hi", 2), 2);
  close(info.fd);
  char buf[4] = {};
  EXPECT_EQ(read(p[0], buf, sizeof buf), 2);
  EXPECT_EQ(std::string(buf, 2), "hi");
  close(p[0]);
}

TEST_F(SocketPairTest, RecvFDAfterPeerCloseIsEndOfFile) {
  ASSERT_TRUE(writer_.Close());
  OmFile::RecvFDInfo info;
  EXPECT_EQ(reader_.RecvFD(info), OmFile::ioEndOfFile);
  EXPECT_EQ(info.fd, -1);
}

TEST(FileErrorTest, ReadAndWriteOnAClosedFileFail) {
  OmFile f;
  char buf[4];
  long done = 0;
  EXPECT_EQ(f.Read(buf, 4, done), OmFile::ioError);
  EXPECT_EQ(f.LastError().Errno(), EBADF);
  EXPECT_EQ(f.LastError().Call(), "read");
  EXPECT_TRUE(Contains(f.LastError().Reason(), "read("));

  EXPECT_EQ(f.Write("abcd", 4, done), OmFile::ioError);
  EXPECT_EQ(f.LastError().Call(), "write");
  EXPECT_TRUE(Contains(f.LastError().Reason(), "Bad file descriptor"));
}

TEST(FileErrorTest, SetBlockingFailureNamesTheFcntlCommand) {
  OmFile f;
  EXPECT_FALSE(f.SetBlocking(false));
  EXPECT_EQ(f.LastError().Call(), "fcntl");
  EXPECT_EQ(f.LastError().Errno(), EBADF);
  EXPECT_TRUE(Contains(f.LastError().Reason(), "F_GETFL")) << f.LastError().Reason().AsUtf8();
}

TEST(FileErrorTest, FailedCloseIsRecordedAndForgetsTheDescriptor) {
  int fd = open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  close(fd);  // a number known to be closed
  OmFile f(fd);
  EXPECT_FALSE(f.Close());
  EXPECT_EQ(f.LastError().Call(), "close");
  EXPECT_EQ(f.LastError().Errno(), EBADF);
  EXPECT_EQ(f.Fd(), -1);
  EXPECT_TRUE(f.Close());
}

TEST(FileErrorTest, CloseOfANeverOpenedFileSucceeds) {
  OmFile f;
  EXPECT_TRUE(f.Close());
}

// A fresh directory under the temporary area, removed afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/omfile-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    ASSERT_NE(mkdtemp(buf.data()), nullptr);
    dir_ = buf.data();
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::string Path(const char* name) const { return dir_ + "/" + name; }

  std::string dir_;
};

TEST_F(TempDirTest, OpenOfAMissingFileFails) {
  std::string path = Path("missing");
  OmFile f;
  EXPECT_FALSE(f.Open(path.c_str(), O_RDONLY));
  EXPECT_EQ(f.Fd(), -1);
  EXPECT_EQ(f.LastError().Errno(), ENOENT);
  OmUniString reason = f.LastError().Reason();
  EXPECT_TRUE(Contains(reason, "open(")) << reason.AsUtf8();
  EXPECT_TRUE(Contains(reason, path.c_str())) << reason.AsUtf8();
  EXPECT_TRUE(Contains(reason, "RDONLY")) << reason.AsUtf8();
  EXPECT_TRUE(Contains(reason, "No such file or directory")) << reason.AsUtf8();
}

TEST_F(TempDirTest, OpenErrorSpellsTheFlags) {
  std::string path = Path("no/such/dir/file");
  OmFile f;
  EXPECT_FALSE(f.Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  OmUniString reason = f.LastError().Reason();
  EXPECT_TRUE(Contains(reason, "WRONLY | CREAT | TRUNC")) << reason.AsUtf8();

  EXPECT_FALSE(f.Open(path.c_str(), O_RDWR | O_APPEND));
  reason = f.LastError().Reason();
  EXPECT_TRUE(Contains(reason, "RDWR | APPEND")) << reason.AsUtf8();
  EXPECT_FALSE(Contains(reason, "RDONLY")) << reason.AsUtf8();
}

TEST_F(TempDirTest, WriteSeekReadTruncate) {
  std::string path = Path("data");
  OmFile f;
  ASSERT_TRUE(f.Open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
  long done = 0;
  EXPECT_EQ(f.Write("hello world", 11, done), OmFile::ioComplete);
  EXPECT_EQ(f.LSeek(6, SEEK_SET), 6);
  char buf[16] = {};
  EXPECT_EQ(f.Read(buf, 5, done), OmFile::ioComplete);
  EXPECT_EQ(std::string(buf, 5), "world");
  EXPECT_EQ(f.Read(buf, 5, done), OmFile::ioEndOfFile);
  EXPECT_TRUE(f.FTruncate(5));
  EXPECT_EQ(OmFile::Length(path.c_str()), 5);
  EXPECT_TRUE(f.Close());
}

TEST_F(TempDirTest, PathQueries) {
  std::string file = Path("plain");
  OmByteBuffer content("abc");
  ASSERT_TRUE(OmFile::WriteFile(file.c_str(), content));

  EXPECT_TRUE(OmFile::DoesPathExist(dir_.c_str()));
  EXPECT_TRUE(OmFile::IsDirectory(dir_.c_str()));
  EXPECT_TRUE(OmFile::DoesPathExist(file.c_str()));
  EXPECT_FALSE(OmFile::IsDirectory(file.c_str()));
  EXPECT_EQ(OmFile::Length(file.c_str()), 3);
  EXPECT_GT(OmFile::ModTime(file.c_str()), 0);

  std::string missing = Path("missing");
  EXPECT_FALSE(OmFile::DoesPathExist(missing.c_str()));
  EXPECT_FALSE(OmFile::IsDirectory(missing.c_str()));
}

TEST_F(TempDirTest, WriteFileThenReadFile) {
  std::string path = Path("round");
  const unsigned char raw[] = {'a', 0, 0xff, '\n', 'z'};
  OmByteBuffer data(raw, sizeof raw);
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), data));
  OmByteBuffer back;
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back, data);

  // Writing again replaces the old content.
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), OmByteBuffer("xy")));
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back, OmByteBuffer("xy"));
}

TEST_F(TempDirTest, ReadFileOfALargeFile) {
  std::string path = Path("large");
  std::string text;
  for (int i = 0; i < 20000; ++i) text += static_cast<char>('a' + i % 26);
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), OmByteBuffer(text.data(), text.size())));
  OmByteBuffer back;
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back, OmByteBuffer(text.data(), text.size()));
}

TEST_F(TempDirTest, ReadFileOfAnEmptyFile) {
  std::string path = Path("empty");
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), OmByteBuffer()));
  OmByteBuffer back("stale");
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back.Length(), 0u);
}

TEST_F(TempDirTest, ReadFileOfAMissingFileFails) {
  std::string path = Path("missing");
  OmByteBuffer back;
  EXPECT_FALSE(OmFile::ReadFile(path.c_str(), back));
}

TEST(FilePathTest, GetCWD) {
  OmUniString cwd;
  ASSERT_TRUE(OmFile::GetCWD(cwd));
  EXPECT_EQ(cwd.AsUtf8(), std::filesystem::current_path().string());
}

TEST(FilePathTest, RationalisePathFoldsDoubleSlashesAndParents) {
  OmUniString a("/a//b");
  OmFile::RationalisePath(a);
  EXPECT_EQ(a, "/a/b");
  OmUniString b("/a/b/../c");
  OmFile::RationalisePath(b);
  EXPECT_EQ(b, "/a/c");
  OmUniString c("/a/b");
  OmFile::RationalisePath(c);
  EXPECT_EQ(c, "/a/b");
}

TEST(FilePathTest, IsSubdir) {
  EXPECT_TRUE(OmFile::IsSubdir("/a/b", "/a/b/c"));
  EXPECT_TRUE(OmFile::IsSubdir("/a/b", "/a/b/c/d"));
  EXPECT_FALSE(OmFile::IsSubdir("/a/b", "/a/bc"));
  EXPECT_FALSE(OmFile::IsSubdir("/a/b", "/a"));
  EXPECT_FALSE(OmFile::IsSubdir("/a/b", "/x/b/c"));
}

TEST(FilePathTest, GeneratePrintableName) {
  EXPECT_EQ(OmFile::GeneratePrintableName("plain.txt"), "plain.txt");
  EXPECT_EQ(OmFile::GeneratePrintableName("a\x01" "b\x10"), "a\\x01b\\x10");
}

}  // namespace
