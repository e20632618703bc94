// quelmloadctl against stand-in servers that record its requests byte for
// byte or fail in chosen ways, and on bad arguments. The conversation with
// the real probe is in command_test.cpp.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

const std::string kCreated = "<?xml version=\"1.0\"?><znalbreply type=\"create\"></znalbreply>";

enum Server { kClosed, kSilent, kAnswering };

// A TCP server on 127.0.0.1 in place of the probe. A connection it does not
// answer waits in its backlog.
struct StandIn {
  StandIn() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), len);
    listen(fd, 1);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
  }
  ~StandIn() { close(fd); }
  // Takes one connection, answers it with reply and returns what the first
  // read returned: the probe acts on exactly that.
  std::string Answer(const std::string& reply) const {
    pollfd p{fd, POLLIN, 0};
    const int conn = poll(&p, 1, 10000) > 0 ? accept(fd, nullptr, nullptr) : -1;
    if (conn < 0) return "";
    pollfd c{conn, POLLIN, 0};
    char buf[2048];
    const ssize_t n = poll(&c, 1, 10000) > 0 ? read(conn, buf, sizeof buf) : 0;
    (void)!write(conn, reply.data(), reply.size());
    close(conn);
    return std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  }
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int port = 0;
};

// PORT in a request or message stands for the stand-in's port.
TEST(CtlTest, RequestsInOneWriteAndFailedExchanges) {
  const struct {
    std::vector<std::string> args;
    std::string request;
    Server server = kAnswering;
    std::string reply = kCreated;
    int status = 0;
    std::string err = "";  // after "quelmloadctl: "
  } cases[] = {
      {{"get"}, "GET /?get&znalbinfo"},
      {{"create", "--id", "12", "--subscriber", "lb1.example.com:4444", "--stat", "vmem,cpu"},
       "<znalbreq type=\"create\"><host>lb1.example.com</host><port>4444</port><samplerate>5000"
       "</samplerate><windowsize>3</windowsize><replyfreq>10000</replyfreq><percentchange>10"
       "</percentchange><stat>vmem</stat><stat>cpu</stat><id>12</id><version>1.0</version>"
       "</znalbreq>"},
      {{"create", "--id=3", "--subscriber=10.0.0.2:5", "--stat", "bogo", "--samplerate", "20000",
        "--windowsize", "6", "--replyfreq", "30000", "--percentchange", "0"},
       "<znalbreq type=\"create\"><host>10.0.0.2</host><port>5</port><samplerate>20000"
       "</samplerate><windowsize>6</windowsize><replyfreq>30000</replyfreq><percentchange>0"
       "</percentchange><stat>bogo</stat><id>3</id><version>1.0</version></znalbreq>"},
      {{"kill", "--id", "12"}, "<znalbreq type=\"kill\"><id>12</id><version>1.0</version></znalbreq>"},
      {{"admin", "--samplerate", "5000", "--windowsize", "3", "--port", "4000"},
       "<znalbreq type=\"admin\"><port>4000</port><samplerate>5000</samplerate><windowsize>3"
       "</windowsize><version>1.0</version></znalbreq>"},
      // Without its own --port, admin asks for the port it talks to.
      {{"admin", "--samplerate", "1", "--windowsize", "2"},
       "<znalbreq type=\"admin\"><port>PORT</port><samplerate>1</samplerate><windowsize>2"
       "</windowsize><version>1.0</version></znalbreq>"},
      {{"get"}, "", kClosed, "", 2, "cannot connect to 127.0.0.1:PORT: Connection refused\n"},
      {{"get"}, "", kSilent, "", 2, "no reply from 127.0.0.1:PORT within 300 ms\n"},
      {{"get"}, "GET /?get&znalbinfo", kAnswering, "", 2,
       "127.0.0.1:PORT closed the connection without a reply\n"},
      {{"get"}, "GET /?get&znalbinfo", kAnswering,
       "Message is either too short or too long to be valid", 1,
       "unexpected reply from 127.0.0.1:PORT: Message is either too short or too long to be "
       "valid\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args) + " " + c.err);
    StandIn server;
    if (c.server == kClosed) close(std::exchange(server.fd, -1));
    // A short timeout only where it is the point: no answer is ever coming.
    std::vector<std::string> args{"--port", std::to_string(server.port), "--timeout",
                                  c.server == kSilent ? "300" : "20000"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Ctl ctl(args);
    auto withPort = [&](const std::string& text) {
      return std::regex_replace(text, std::regex("PORT"), std::to_string(server.port));
    };
    if (c.server == kAnswering) {
      EXPECT_EQ(server.Answer(c.reply), withPort(c.request));
    }
    const Output r = ctl.Finish();
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.err.empty() ? "" : "quelmloadctl: " + withPort(c.err));
    // Whatever came back is still printed.
    EXPECT_EQ(r.out, c.reply.empty() ? "" : c.reply + "\n");
  }
}

TEST(CtlTest, BadArgumentsExit64WithUsageAndListeningTimesOut) {
  const struct {
    std::vector<std::string> args;
    std::string says;
    int status = 64;
  } cases[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"--bogus", "get"}, "unknown option '--bogus'"},
      {{"get", "extra"}, "unexpected argument 'extra'"},
      {{"kill"}, "kill needs --id"},
      {{"kill", "--id", "seven"}, "'seven' is not a number"},
      {{"--port", "0", "get"}, "out of range"},
      {{"create", "--id", "1", "--subscriber", "127.0.0.1", "--stat", "cpu"},
       "is not HOST:UDPPORT"},
      {{"create", "--id", "1", "--subscriber", "127.0.0.1:9", "--stat", "cpu,disk"},
       "'disk' is not one of cpu, bogo, vmem"},
      {{"create", "--id", "1", "--subscriber", "h" + std::string(400, 'x') + ":9", "--stat",
        "cpu"},
       "at most 512"},
      {{"listen", "--port", "0", "--count", "1", "--timeout", "200"},
       "received 0 of 1 load packets within 200 ms", 2},
      // Without a count, the timeout simply ends the listening.
      {{"listen", "--port", "0", "--timeout", "100"}, "listening for load packets", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const Output r = RunCtl(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err.rfind("quelmloadctl: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("\nUsage: quelmloadctl") != std::string::npos, c.status == 64) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
