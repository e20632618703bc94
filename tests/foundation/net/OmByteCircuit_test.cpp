#include "foundation/net/OmByteCircuit.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/event/OmEventLoop.h"
#include "foundation/string/OmTimeVal.h"

namespace {

// Records everything the circuit tells it. The file is owned by the test.
class RecordingCircuit : public OmByteCircuit {
 public:
  RecordingCircuit(OmEventLoop& loop, OmFile* file) : OmByteCircuit(loop) {
    SetReadFile(file);
    SetWriteFile(file);
  }

  void ReadAvail(OmByteBuffer& incoming) override {
    if (incoming.IsEmpty()) return;
    const unsigned char* before = incoming.Data();
    const OmByteBuffer taken = TakeIncoming();
    sameStorage = taken.Data() == before && incoming.IsEmpty();
    deliveries.emplace_back(reinterpret_cast<const char*>(taken.Data()), taken.Length());
    if (rearm > 0) ReadMore(rearm);
  }
  void EndOfFile(bool partial) override {
    eofs.push_back(partial);
    OmByteCircuit::EndOfFile(partial);
  }
  void WriteMore(unsigned long written) override { writeMore.push_back(written); }
  void WriteStopped() override { ++stopped; }
  void Retired() override { onRetired(); }
  using OmByteCircuit::RetireWhenDone;
  std::function<void()> onRetired = [] {};

  unsigned long rearm = 0;
  bool sameStorage = false;
  int stopped = 0;
  std::vector<std::string> deliveries;
  std::vector<bool> eofs;
  std::vector<unsigned long> writeMore;
};

bool g_guardFired = false;

void GuardCB(OmCallback<OmEvent::cbdispatch>*, OmEvent::cbdispatch reason) {
  if (reason == OmEvent::fired) g_guardFired = true;
}

class OmByteCircuitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    file_.SetFd(sv[0], OmFile::kLocalSocket);
    ASSERT_TRUE(file_.SetBlocking(false));
    peer_ = sv[1];
    ASSERT_EQ(fcntl(peer_, F_SETFL, O_NONBLOCK), 0);
    g_guardFired = false;
  }
  void TearDown() override {
    if (peer_ >= 0) close(peer_);
  }

  // One turn of the loop; a guard timeout keeps a missing event from blocking.
  void Turn() {
    const OmTimeVal when = OmTimeVal::now().PlusSeconds(2);
    loop_.AddTimeoutEvent(when, &guard_);
    loop_.RunOneTurn();
    loop_.RemoveTimeoutEvent(when, &guard_);
    ASSERT_FALSE(g_guardFired) << "no descriptor became ready";
  }

  void Send(const std::string& s) {
    ASSERT_EQ(write(peer_, s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }

  std::string Drain() {
    std::string out;
    char buf[65536];
    ssize_t n;
    while ((n = read(peer_, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
  }

  OmEventLoop loop_{nullptr};
  OmStaticCallback<OmEvent::cbdispatch> guard_{GuardCB};
  int peer_ = -1;
  OmFile file_;
};

OmByteBuffer Bytes(const std::string& s) { return OmByteBuffer(s.data(), s.size()); }

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return s;
}

TEST_F(OmByteCircuitTest, RequestedBytesArriveInTwoParts) {
  RecordingCircuit c(loop_, &file_);
  EXPECT_EQ(c.WantRead(), 1);
  c.ReadMore(10);
  Send("0123");
  Turn();
  EXPECT_TRUE(c.deliveries.empty());
  EXPECT_EQ(c.Requested(), 6u);
  Send("456789");
  Turn();
  EXPECT_EQ(c.deliveries, std::vector<std::string>{"0123456789"});
  EXPECT_TRUE(c.sameStorage);  // TakeIncoming hands the buffer over without copying
  EXPECT_EQ(c.Requested(), 0u);
}

// 4 bytes then a close: partial in a request of 10, between requests after one of 4.
TEST_F(OmByteCircuitTest, EndOfFileInsideOrBetweenRequests) {
  for (unsigned long request : {10ul, 4ul}) {
    SCOPED_TRACE(request);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    OmFile file(sv[0], OmFile::kLocalSocket);
    ASSERT_TRUE(file.SetBlocking(false));
    RecordingCircuit c(loop_, &file);
    c.WantRead();
    c.ReadMore(request);
    c.rearm = 4;
    ASSERT_EQ(write(sv[1], "0123", 4), 4);
    close(sv[1]);
    Turn();
    if (c.eofs.empty()) Turn();  // the bytes and the close may come one turn apart
    EXPECT_EQ(c.eofs, std::vector<bool>{request == 10});
    EXPECT_EQ(c.deliveries.size(), request == 10 ? 0u : 1u);
    EXPECT_EQ(c.ReadWantCount(), 0);
    EXPECT_EQ(loop_.PollCount(), 0u);
  }
}

TEST_F(OmByteCircuitTest, WriteNowSendsAtOnceAndEmptyWritesQueueNothing) {
  RecordingCircuit c(loop_, &file_);
  c.Write(OmByteBuffer(), false);
  c.Write(OmByteBuffer(), true);
  EXPECT_EQ(c.QueuedMessages(), 0u);
  EXPECT_EQ(loop_.PollCount(), 0u);

  const OmByteBuffer data = Bytes("reply");
  c.Write(data, false);
  EXPECT_EQ(data.RefCount(), 2u);  // queued by reference
  EXPECT_TRUE(c.IsWriteRegistered());
  c.Write(Bytes("!"), true);
  EXPECT_EQ(c.QueuedMessages(), 0u);
  EXPECT_FALSE(c.IsWriteRegistered());
  EXPECT_EQ(data.RefCount(), 1u);
  EXPECT_EQ(Drain(), "reply!");
}

TEST_F(OmByteCircuitTest, CloseMarkerWaitsForEverythingQueued) {
  const int small = 4096;  // large writes go out in parts
  ASSERT_EQ(setsockopt(file_.Fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  ASSERT_EQ(setsockopt(peer_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
  RecordingCircuit c(loop_, &file_);
  const std::string big = Pattern(200000);
  c.Write(Bytes(big), false);
  c.Write(Bytes("tail"), false);
  c.StopWrite(false);
  EXPECT_EQ(c.QueuedMessages(), 3u);

  std::string got;
  for (int turns = 0; c.stopped == 0 && turns < 10000; ++turns) {
    EXPECT_GE(file_.Fd(), 0) << "closed with " << c.QueuedMessages() << " messages left";
    got += Drain();
    Turn();
  }
  EXPECT_EQ(c.stopped, 1);
  EXPECT_GT(c.writeMore.size(), 1u);  // written in parts, each from the right offset
  EXPECT_LT(file_.Fd(), 0);
  EXPECT_FALSE(c.IsWriteRegistered());
  EXPECT_EQ(loop_.PollCount(), 0u);
  got += Drain();
  EXPECT_TRUE(got == big + "tail");
  char b;
  EXPECT_EQ(read(peer_, &b, 1), 0);  // the peer sees the close
}

// Retired() may delete the circuit (the sanitizers would see a later use).
TEST_F(OmByteCircuitTest, RetiredCircuitMayDeleteItself) {
  auto* c = new RecordingCircuit(loop_, &file_);
  c->onRetired = [&] { delete std::exchange(c, nullptr); };
  c->RetireWhenDone();
  c->Write(Bytes("hi"), true);
  c->StopWrite(false);
  EXPECT_EQ(nullptr, c);
  EXPECT_EQ("hi", Drain());
}

TEST_F(OmByteCircuitTest, StopWriteNowDropsTheQueue) {
  RecordingCircuit c(loop_, &file_);
  c.Write(Bytes("one"), false);
  c.Write(Bytes("two"), false);
  EXPECT_EQ(loop_.PollCount(), 1u);
  c.StopWrite(true);
  EXPECT_EQ(c.QueuedMessages(), 0u);
  EXPECT_EQ(loop_.PollCount(), 0u);
  EXPECT_GE(file_.Fd(), 0);
  EXPECT_EQ(Drain(), "");
  // With nothing queued, a close marker closes at once.
  c.StopWrite(false);
  EXPECT_EQ(c.stopped, 1);
  EXPECT_LT(file_.Fd(), 0);
}

}  // namespace
