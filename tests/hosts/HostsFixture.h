#ifndef QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
#define QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_

#include <poll.h>

#include <optional>
#include <string>

#include "AgentFixture.h"
#include "foundation/net/OmSocket.h"
#include "hosts/Host.h"

namespace hoststest {

// A subscriber's socket on 127.0.0.1 with an ephemeral port.
class UdpReceiver {
 public:
  UdpReceiver() {
    OmInetAddr bound;
    if (socket.Bind(OmInetAddr::AddressLoopback(), OmSocket::Datagram) &&
        socket.LocalAddress(bound)) {
      port = bound.GetPort();
    }
  }

  // The next datagram, or nothing once waitMs has passed.
  std::optional<std::string> receive(int waitMs = 1000) {
    pollfd p{socket.Fd(), POLLIN, 0};
    char buf[2048];
    long n = 0;
    OmInetAddr from;
    if (::poll(&p, 1, waitMs) != 1 ||
        socket.ReadMessage(buf, sizeof buf, n, from) == OmFile::ioError) {
      return std::nullopt;
    }
    return std::string(buf, static_cast<size_t>(n));
  }
  // Loopback delivers within the sending call: a short wait is enough.
  bool nothingWaiting() { return !receive(20).has_value(); }

  OmSocket socket;
  unsigned port = 0;
};

// The agent with a subscriber socket and a loop driven by the fake clock.
class HostsTest : public AgentTest {
 protected:
  void setTime(uint32_t seconds) { env.now = OmTimeVal(seconds, 0); }

  // Fires every timeout due by the fake clock, up to a marker one
  // microsecond ahead (below poll's millisecond, so nothing waits).
  void runDue() {
    struct Marker : OmEventCallback {
      bool reached = false;
      void Dispatch(OmEvent::cbdispatch) override { reached = true; }
    } marker;
    const OmTimeVal end(env.now.seconds, env.now.microseconds + 1);
    loop.AddTimeoutEvent(end, &marker);
    for (int turns = 0; turns < 100 && !marker.reached; ++turns) loop.RunOneTurn();
    if (!marker.reached) loop.RemoveTimeoutEvent(end, &marker);
    EXPECT_TRUE(marker.reached);
  }

  Host* addHost(unsigned id, unsigned flags, unsigned replyFrequencyMs = 10000,
                unsigned sampleRateMs = 5000, unsigned window = 3) {
    return HostListMgr::addHost(OmUniString("127.0.0.1"), subscriber.port, sampleRateMs, window,
                                replyFrequencyMs, 10, id, OmUniString("text"), flags);
  }

  // Memory in MiB.
  void addSample(uint32_t idle, uint32_t vmemMiB, uint32_t pmemMiB) {
    myCache->addToCache(idle, vmemMiB * 1024, pmemMiB * 1024, 1, 2);
  }

  UdpReceiver subscriber;
};

}  // namespace hoststest

#endif  // QUELM_TESTS_HOSTS_HOSTSFIXTURE_H_
