#include "command/ConnectionServer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "FakeEnv.h"
#include "command/DescriptorBudget.h"
#include "foundation/event/OmEventLoop.h"

namespace {

// A port whose connections read and drop what comes; each ends at the
// client's close or at its deadline, and its deletion is counted.
struct CountingPort : ConnectionServer::Port {
  struct Connection : ServerConnection {
    Connection(ConnectionServer& s, int fd, CountingPort& p)
        : ServerConnection(s), file(fd, OmFile::kInetSocket), port(p) {
      SetReadFile(&file);
      WantRead();
    }
    ~Connection() override { ++port.deleted; }
    void ReadAvail(OmByteBuffer& in) override { in.IsEmpty() ? ReadMore(1) : (void)TakeIncoming(); }
    void EndOfFile(bool) override { end(); }
    void deadlineReached() override { ++port.timedOut, end(); }
    void end() {
      while (StopRead() > 0) {
      }
      file.Close(), descriptorClosed(), retire();
    }
    OmFile file;
    CountingPort& port;
  };
  ServerConnection* connect(int fd) override { return ++accepted, new Connection(*server, fd, *this); }
  void listenFailed(const OmInetAddr&, bool, const OmUniString&) override { ++failed; }
  void capReached(unsigned) override { ++capped; }

  ConnectionServer* server = nullptr;
  int accepted = 0, deleted = 0, timedOut = 0, capped = 0, failed = 0;
};

class ConnectionServerTest : public ::testing::Test {
 protected:
  // Turns of the loop that never wait: what is ready or due is served.
  void turns(int n = 20) {
    for (int i = 0; i < n; ++i) {
      OmTimer noWait(loop, nullptr);
      noWait.Arm(OmTimeVal(env.now.seconds, env.now.microseconds + 1));
      loop.RunOneTurn();
    }
  }
  int client() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to));
    return fd;
  }

  FakeEnv env{OmTimeVal(1000000, 0)};
  OmEventLoop loop{nullptr};
  CountingPort counting;
  ConnectionServer server{loop, counting};
  unsigned port = 0;
};

// The cap holds the third client in the backlog until one closes; every
// connection ends at its deadline at the latest and is deleted a delay later.
TEST_F(ConnectionServerTest, CapDeadlineAndDeferredDeletion) {
  counting.server = &server;
  ConnectionServer::Options o;
  o.maxConnections = 2;
  o.requestTimeout = 5;
  o.deletionDelay = 1;
  ASSERT_TRUE(server.start(OmInetAddr::AddressLoopback(), o));
  OmInetAddr bound;
  ASSERT_TRUE(server.localAddress(bound));
  port = bound.GetPort();

  const int a = client(), b = client(), c = client();
  turns();
  EXPECT_EQ(2, counting.accepted);
  EXPECT_EQ(1, counting.capped);
  close(a);
  turns();
  EXPECT_EQ(3, counting.accepted);
  EXPECT_EQ(0, counting.deleted);  // its second has not passed
  env.now = env.now.PlusSeconds(1);
  turns();
  EXPECT_EQ(1, counting.deleted);
  env.now = env.now.PlusSeconds(5);
  turns();
  EXPECT_EQ(2, counting.timedOut);
  env.now = env.now.PlusSeconds(1);
  turns();
  EXPECT_EQ(3, counting.deleted);

  ConnectionServer taken(loop, counting);
  OmInetAddr same = OmInetAddr::AddressLoopback();
  same.Port(port);
  EXPECT_FALSE(taken.start(same, o));
  EXPECT_EQ(1, counting.failed);
  close(b);
  close(c);
}

// Equal parts of one count; what a port's own cap leaves goes to the
// others; every port keeps one connection.
TEST(DescriptorBudgetTest, SharesOneCount) {
  using Caps = std::vector<unsigned>;
  EXPECT_EQ(DescriptorBudget::shares(978, {{512, 1}, {512, 2}, {512, 2}}), Caps({326, 163, 163}));
  EXPECT_EQ(DescriptorBudget::shares(1500, {{0, 2}, {100, 1}, {512, 2}}), Caps({350, 100, 350}));
  EXPECT_EQ(DescriptorBudget::shares(-5, {{512, 1}, {64, 2}}), Caps({1, 1}));
}

}  // namespace
