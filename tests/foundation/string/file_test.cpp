#include "foundation/string/OmFile.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace
