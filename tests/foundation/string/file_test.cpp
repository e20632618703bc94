#include "foundation/string/OmFile.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

TEST_F(SocketPairTest, ReadResults) {
  char buf[10];
  long done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioPartial);  // EAGAIN
  EXPECT_EQ(done, 0);

  ASSERT_EQ(writer_.Write("0123456789", 10, done), OmFile::ioComplete);
  EXPECT_EQ(done, 10);
  EXPECT_EQ(reader_.AmountAvailable(), 10);
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioComplete);
  EXPECT_EQ(done, 10);
  EXPECT_EQ(std::string(buf, 10), "0123456789");

  ASSERT_EQ(writer_.Write("abcd", 4, done), OmFile::ioComplete);
  ASSERT_TRUE(writer_.Close());
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioPartial);  // pending bytes come first
  EXPECT_EQ(done, 4);
  EXPECT_EQ(std::string(buf, 4), "abcd");
  done = -1;
  EXPECT_EQ(reader_.Read(buf, 10, done), OmFile::ioEndOfFile);
  EXPECT_EQ(done, 0);
}

TEST_F(SocketPairTest, WriteBeyondTheSocketBufferIsPartial) {
  std::vector<char> chunk(1 << 20, 'z');
  long done = -1;
  int result = OmFile::ioComplete;
  for (int rounds = 0; result == OmFile::ioComplete && rounds < 256; ++rounds) {
    result = reader_.Write(chunk.data(), static_cast<long>(chunk.size()), done);
  }
  ASSERT_EQ(result, OmFile::ioPartial);
  EXPECT_LT(done, static_cast<long>(chunk.size()));
  EXPECT_EQ(reader_.Write(chunk.data(), static_cast<long>(chunk.size()), done), OmFile::ioPartial);
  EXPECT_EQ(done, 0);
}

TEST_F(SocketPairTest, DescriptorFlags) {
  EXPECT_NE(fcntl(reader_.Fd(), F_GETFL) & O_NONBLOCK, 0);
  ASSERT_TRUE(reader_.SetBlocking(true));
  EXPECT_EQ(fcntl(reader_.Fd(), F_GETFL) & O_NONBLOCK, 0);
  ASSERT_TRUE(reader_.SetCloseOnExec(true));
  EXPECT_NE(fcntl(reader_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_TRUE(reader_.SetCloseOnExec(false));
  EXPECT_EQ(fcntl(reader_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_TRUE(OmFile::SetCloseOnExec(writer_.Fd(), true));
  EXPECT_NE(fcntl(writer_.Fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(SocketPairTest, CloseTwiceClosesOnceAndReleaseGivesUp) {
  const int old = reader_.Fd();
  ASSERT_TRUE(reader_.Close());
  EXPECT_EQ(reader_.Fd(), -1);
  EXPECT_FALSE(IsOpen(old));
  // Another descriptor on the old number: the second Close must leave it.
  ASSERT_EQ(dup2(writer_.Fd(), old), old);
  EXPECT_TRUE(reader_.Close());
  EXPECT_TRUE(IsOpen(old));
  close(old);

  // Release gives the descriptor up; a destroyed owner closes it.
  const int fd = writer_.Release();
  EXPECT_EQ(writer_.Fd(), -1);
  { OmFile owner(fd); }
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
  ASSERT_EQ(write(info.fd, "hi", 2), 2);  // the pipe's write end
  close(info.fd);
  char buf[4] = {};
  EXPECT_EQ(read(p[0], buf, sizeof buf), 2);
  close(p[0]);

  ASSERT_TRUE(writer_.Close());
  EXPECT_EQ(reader_.RecvFD(info), OmFile::ioEndOfFile);
  EXPECT_EQ(info.fd, -1);
}

TEST(FileErrorTest, FailuresNameTheCall) {
  OmFile f;
  char buf[4];
  long done = 0;
  EXPECT_EQ(f.Read(buf, 4, done), OmFile::ioError);
  EXPECT_EQ(f.LastError().Errno(), EBADF);
  EXPECT_TRUE(Contains(f.LastError().Reason(), "read("));
  EXPECT_EQ(f.Write("abcd", 4, done), OmFile::ioError);
  EXPECT_EQ(f.LastError().Call(), "write");
  EXPECT_FALSE(f.SetBlocking(false));
  EXPECT_TRUE(Contains(f.LastError().Reason(), "F_GETFL")) << f.LastError().Reason().AsUtf8();
  EXPECT_TRUE(f.Close());  // never opened

  const int fd = open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  close(fd);  // a number known to be closed
  OmFile stale(fd);
  EXPECT_FALSE(stale.Close());
  EXPECT_EQ(stale.LastError().Call(), "close");
  EXPECT_EQ(stale.Fd(), -1);  // forgotten all the same
  EXPECT_TRUE(stale.Close());
}

class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/omfile-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string Path(const char* name) const { return dir_ + "/" + name; }

  std::string dir_;
};

TEST_F(TempDirTest, OpenErrorSpellsPathAndFlags) {
  OmFile f;
  const std::string missing = Path("missing");
  EXPECT_FALSE(f.Open(missing.c_str(), O_RDONLY));
  EXPECT_EQ(f.Fd(), -1);
  EXPECT_EQ(f.LastError().Errno(), ENOENT);
  const OmUniString reason = f.LastError().Reason();
  for (const char* part : {"open(", missing.c_str(), "RDONLY", "No such file or directory"}) {
    EXPECT_TRUE(Contains(reason, part)) << reason.AsUtf8();
  }
  const std::string deep = Path("no/such/file");
  EXPECT_FALSE(f.Open(deep.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  EXPECT_TRUE(Contains(f.LastError().Reason(), "WRONLY | CREAT | TRUNC"));
  EXPECT_FALSE(f.Open(deep.c_str(), O_RDWR | O_APPEND));
  EXPECT_TRUE(Contains(f.LastError().Reason(), "RDWR | APPEND"));
  EXPECT_FALSE(Contains(f.LastError().Reason(), "RDONLY"));
}

TEST_F(TempDirTest, WholeFilesSeekTruncateAndPathQueries) {
  const std::string path = Path("data");
  const unsigned char raw[] = {'a', 0, 0xff, '\n', 'z'};
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), OmByteBuffer(raw, sizeof raw)));
  OmByteBuffer back;
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back, OmByteBuffer(raw, sizeof raw));
  std::string large;
  for (int i = 0; i < 20000; ++i) large += static_cast<char>('a' + i % 26);
  ASSERT_TRUE(OmFile::WriteFile(path.c_str(), OmByteBuffer(large.data(), large.size())));
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));  // replaces the old content
  EXPECT_EQ(back, OmByteBuffer(large.data(), large.size()));
  EXPECT_FALSE(OmFile::ReadFile(Path("missing").c_str(), back));

  OmFile f;
  ASSERT_TRUE(f.Open(path.c_str(), O_RDWR));
  EXPECT_EQ(f.LSeek(19998, SEEK_SET), 19998);
  char buf[4] = {};
  long done = 0;
  EXPECT_EQ(f.Read(buf, 2, done), OmFile::ioComplete);
  EXPECT_EQ(std::string(buf, 2), "ef");  // 19998 % 26 is 4
  EXPECT_EQ(f.Read(buf, 2, done), OmFile::ioEndOfFile);
  EXPECT_TRUE(f.FTruncate(0));
  EXPECT_EQ(OmFile::Length(path.c_str()), 0);
  ASSERT_TRUE(OmFile::ReadFile(path.c_str(), back));
  EXPECT_EQ(back.Length(), 0u);

  EXPECT_TRUE(OmFile::IsDirectory(dir_.c_str()));
  EXPECT_TRUE(OmFile::DoesPathExist(path.c_str()));
  EXPECT_FALSE(OmFile::IsDirectory(path.c_str()));
  EXPECT_FALSE(OmFile::DoesPathExist(Path("missing").c_str()));
  EXPECT_GT(OmFile::ModTime(path.c_str()), 0);
}

TEST(FilePathTest, PathHelpers) {
  OmUniString cwd;
  ASSERT_TRUE(OmFile::GetCWD(cwd));
  EXPECT_EQ(cwd.AsUtf8(), std::filesystem::current_path().string());
  for (const auto& [in, out] :
       {std::pair{"/a//b", "/a/b"}, {"/a/b/../c", "/a/c"}, {"/a/b", "/a/b"}}) {
    OmUniString p(in);
    OmFile::RationalisePath(p);
    EXPECT_EQ(p, out) << in;
  }
  EXPECT_TRUE(OmFile::IsSubdir("/a/b", "/a/b/c/d"));
  EXPECT_FALSE(OmFile::IsSubdir("/a/b", "/a/bc"));
  EXPECT_FALSE(OmFile::IsSubdir("/a/b", "/a"));
  EXPECT_EQ(OmFile::GeneratePrintableName("a\x01"
                                          "b\x10"),
            "a\\x01b\\x10");
}

}  // namespace
