#include "foundation/string/OmFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "string_test_util.h"

namespace {

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Two connected local stream sockets; the reading end is non-blocking.
TEST(FileTest, ReadResultsAndCloseTwice) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  OmFile reader(sv[0], OmFile::kLocalSocket), writer(sv[1], OmFile::kLocalSocket);
  ASSERT_TRUE(reader.SetBlocking(false));
  char buf[10];
  long done = -1;
  EXPECT_EQ(reader.Read(buf, 10, done), OmFile::ioPartial);  // EAGAIN
  EXPECT_EQ(done, 0);

  ASSERT_EQ(writer.Write("0123456789", 10, done), OmFile::ioComplete);
  EXPECT_EQ(reader.Read(buf, 10, done), OmFile::ioComplete);
  EXPECT_EQ(std::string(buf, static_cast<size_t>(done)), "0123456789");

  ASSERT_EQ(writer.Write("abcd", 4, done), OmFile::ioComplete);
  const int old = writer.Fd();
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(reader.Read(buf, 10, done), OmFile::ioPartial);  // pending bytes come first
  EXPECT_EQ(std::string(buf, static_cast<size_t>(done)), "abcd");
  done = -1;
  EXPECT_EQ(reader.Read(buf, 10, done), OmFile::ioEndOfFile);
  EXPECT_EQ(done, 0);

  EXPECT_EQ(writer.Fd(), -1);
  EXPECT_FALSE(IsOpen(old));
  // Another descriptor on the old number: the second Close must leave it.
  ASSERT_EQ(dup2(reader.Fd(), old), old);
  EXPECT_TRUE(writer.Close());
  EXPECT_TRUE(IsOpen(old));
  close(old);
}

TEST(FileErrorTest, FailuresNameTheCall) {
  OmFile f;
  char buf[4];
  long done = 0;
  EXPECT_EQ(f.Read(buf, 4, done), OmFile::ioError);
  EXPECT_EQ(f.LastError().Errno(), EBADF);
  EXPECT_EQ(f.LastError().Call(), "read");
  EXPECT_FALSE(f.Open("/nonexistent/quelm/x", O_RDONLY));
  EXPECT_EQ(f.LastError().Errno(), ENOENT);
  EXPECT_NE(f.LastError().Reason().Search(OmUniString("/nonexistent/quelm/x")), -1);
}

// What a planted path holds: only a regular file of this user's is opened,
// and only a regular file within the bound is read; none of them blocks.
TEST(FileTest, OwnFilesAndBoundedReads) {
  char tmpl[] = "/tmp/quelm-own-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  const auto path = [&](const char* name) { return dir + "/" + name; };
  const OmByteBuffer bytes("12345678", 8);
  ASSERT_TRUE(OmFile::WriteFile(path("mine").c_str(), bytes));
  ASSERT_TRUE(OmFile::WriteFile(path("theirs").c_str(), bytes));
  const bool root = geteuid() == 0 && chown(path("theirs").c_str(), 65534, 65534) == 0;
  ASSERT_EQ(symlink(path("mine").c_str(), path("link").c_str()), 0);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
  const struct {
    std::string path, why;  // why empty: opened
    long read;              // bytes read with a bound of 8; -1: refused
  } cases[] = {{path("mine"), "", 8},
               {path("new"), "", 0},
               {path("link"), "it is a symbolic link", 8},
               {path("fifo"), "it is not a regular file", -1},
               {"/dev/zero", "it is not a regular file", -1},
               {path("theirs"), root ? "it belongs to user 65534" : "", 8}};
  for (const auto& c : cases) {
    std::string why = "unset";
    const int fd = OmFile::OpenOwnFile(c.path.c_str(), O_WRONLY | O_CREAT, 0600, why);
    EXPECT_EQ(c.why.empty(), fd >= 0) << c.path;
    EXPECT_EQ(c.why, why) << c.path;
    if (fd >= 0) close(fd);
    OmByteBuffer out;
    EXPECT_EQ(c.read >= 0, OmFile::ReadFile(c.path.c_str(), out, 8)) << c.path;
    EXPECT_EQ(c.read >= 0 ? c.read : 0, static_cast<long>(out.Length())) << c.path;
  }
  OmByteBuffer out;
  EXPECT_FALSE(OmFile::ReadFile(path("mine").c_str(), out, 7));
  std::filesystem::remove_all(dir);
}

}  // namespace
