// quelmloadctl without a probe: bad arguments, no connection, no reply, and
// listening in vain. Its conversation with the real probe is in command_test.cpp.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

TEST(CtlTest, ExitStatusAndOneLineMessageWithoutAProbe) {
  // A listening socket that never accepts: the client's request waits in its
  // backlog, unanswered. Closed afterwards, its port refuses connections.
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  listen(fd, 1);  // bound to a free port by listening
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  const std::string port = std::to_string(ntohs(reinterpret_cast<sockaddr_in&>(addr).sin_port));
  const struct {
    std::vector<std::string> args;
    int status;
    std::string says;
  } cases[] = {
      {{}, 64, "no command given"},
      {{"frobnicate"}, 64, "unknown command 'frobnicate'"},
      {{"--bogus", "get"}, 64, "unknown option '--bogus'"},
      {{"get", "extra"}, 64, "unexpected argument 'extra'"},
      {{"kill"}, 64, "kill needs --id"},
      {{"kill", "--id", "seven"}, 64, "'seven' is not a number"},
      {{"--port", "0", "get"}, 64, "out of range"},
      {{"create", "--id", "1", "--subscriber", "127.0.0.1", "--stat", "cpu"}, 64,
       "is not HOST:UDPPORT"},
      {{"create", "--id", "1", "--subscriber", "127.0.0.1:9", "--stat", "cpu,disk"}, 64,
       "'disk' is not one of cpu, bogo, vmem"},
      {{"create", "--id", "1", "--subscriber", "h" + std::string(400, 'x') + ":9", "--stat", "cpu"},
       64, "at most 512"},
      {{"--port", port, "--timeout", "300", "get"}, 2,
       "quelmloadctl: no reply from 127.0.0.1:" + port + " within 300 ms\n"},
      {{"--port", port, "get"}, 2,
       "quelmloadctl: cannot connect to 127.0.0.1:" + port + ": Connection refused\n"},
      {{"listen", "--port", "0", "--count", "1", "--timeout", "200"}, 2,
       "received 0 of 1 load packets within 200 ms"},
      // Without a count, the timeout simply ends the listening.
      {{"listen", "--port", "0", "--timeout", "100"}, 0, "listening for load packets"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    if (c.says.starts_with("quelmloadctl: cannot")) close(fd);
    const Output r = RunCtl(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err.rfind("quelmloadctl: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("\nUsage: quelmloadctl") != std::string::npos, c.status == 64) << r.err;
    // One line, and nothing on standard output, unless usage follows.
    EXPECT_TRUE(c.status == 64 || c.args[0] == "listen" || r.err == c.says) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
