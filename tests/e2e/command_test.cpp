// The command port on one shared probe with curl, socat, raw sockets and quelmloadctl.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "probe_runner.h"

namespace {

// A reply document as the probe writes it.
std::string Reply(const std::string& type, const std::string& body) {
  return "<?xml version=\"1.0\"?><znalbreply type=\"" + type + "\"><version>1.0</version>" +
         body + "</znalbreply>";
}

bool Matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

// One probe for all cases; its tool gives one sample (idle 77) a run, then lingers with its output closed.
class CommandTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    probe_ = new ProbeRunner;
    probe_->SetTool("echo 'first header'\necho 'second header'\n"
                    "echo '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
                    "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\n"
                    "sleep 1\nexec sleep 60 >&- <&-\n");
    probe_->Start();
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(probe_->Stop(SIGTERM), 92);
    delete probe_;
  }
  void SetUp() override { ASSERT_TRUE(probe_->WaitUntilPolling()); }
  // The get reply up to its hosts.
  static std::string GetDoc() {
    return "<\\?xml version=\"1.0\"\\?><znalbreply type=\"get\"><version>1.0</version><port>" +
           std::to_string(probe_->port()) + "</port><samplerate>5</samplerate><windowsize>3"
           "</windowsize><stats>cpu=\\d+ bogo=\\d+ vmem=\\d+ </stats><time>[A-Z][a-z]{2}, \\d\\d "
           "[A-Z][a-z]{2} \\d{4} \\d\\d:\\d\\d:\\d\\d GMT</time>";
  }
  static inline ProbeRunner* probe_ = nullptr;
};

TEST_F(CommandTest, RawClientsTheToolsOutputAndABusyPort) {
  const int port = probe_->port();
  // A second probe on the busy port; its start-up runs beside the cases below.
  ProbeRunner second;
  second.Set("port", std::to_string(port));
  second.Start();
  const std::string idle = GetDoc() + "No Updates</znalbreply>";
  // Without the agent check and metrics keys the command port is its only one.
  EXPECT_EQ(Shell("ss -Hltnp | grep -c 'pid=" + std::to_string(probe_->pid()) + ",'").out, "1\n");
  const Output curl = Shell("curl --http0.9 -s --max-time 10 'http://127.0.0.1:" +
                            std::to_string(port) + "/?get&znalbinfo'");
  EXPECT_TRUE(Matches(curl.out, idle)) << curl.out;
  ProbeRunner::WriteFile(probe_->dir() + "/get.xml", curl.out);
  EXPECT_EQ(Shell("xmllint --noout " + probe_->dir() + "/get.xml").status, 0);
  EXPECT_TRUE(probe_->WaitForLog("Response is \n<?xml version=\"1.0\"?>"));

  // The whole request comes in one read of 11 to 512 bytes.
  const std::string rejected = "Message is either too short or too long to be valid";
  EXPECT_EQ(SendRequest(port, "GET /"), rejected);
  EXPECT_EQ(SendRequest(port, std::string(513, 'x')), rejected);
  const std::string get = "GET /?get&znalbinfo";
  EXPECT_TRUE(Matches(SendRequest(port, get + std::string(512 - get.size(), ' ')), idle));
  EXPECT_TRUE(probe_->WaitForLog("Bad request (length 5). Request is [ GET / ]."));
  EXPECT_TRUE(probe_->WaitForLog("Bad request (length 513)."));

  // One reply per connection: a second request on it is never answered.
  const int fd = Connect(port);
  ASSERT_EQ(write(fd, get.data(), get.size()), static_cast<ssize_t>(get.size()));
  std::string reply;
  char buf[4096];
  for (pollfd p{fd, POLLIN, 0}; poll(&p, 1, 5000) > 0;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
    if (reply.ends_with("</znalbreply>")) (void)!write(fd, get.data(), get.size());
  }
  close(fd);
  EXPECT_TRUE(Matches(reply, idle)) << reply;

  // Create with socat (one write), get and kill.
  const Output created = Shell(
      "printf '%s' '<znalbreq type=\"create\"><host>127.0.0.1</host><port>9</port><samplerate>1"
      "</samplerate><windowsize>5</windowsize><replyfreq>10</replyfreq><percentchange>20"
      "</percentchange><stat>vmem</stat><id>5</id><version>1.0</version></znalbreq>' | "
      "timeout 10 socat -t 2 - TCP:127.0.0.1:" + std::to_string(port));
  EXPECT_TRUE(Matches(created.out, "<\\?xml version=\"1.0\"\\?><znalbreply type=\"create\">"
                      "<version>1.0</version><id>5</id><stats>vmem=\\d+ </stats></znalbreply>"))
      << created.out;
  const std::string listed = SendRequest(port, "GET /?get&znalbinfo HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(Matches(listed, GetDoc() + "<connection><id>5</id><host>127.0.0.1</host><port>9"
                      "</port><replyfrequency>10</replyfrequency><percentchange>20</percentchange>"
                      "<samplerate>5</samplerate><windowsize>5</windowsize><stats>vmem=\\d+ "
                      "</stats><time>[^<]+</time></connection></znalbreply>")) << listed;
  const std::string kill = "<znalbreq type=\"kill\"><id>5</id><version>1.0</version></znalbreq>";
  EXPECT_EQ(SendRequest(port, kill), Reply("kill", "<id>5</id>"));
  EXPECT_TRUE(Matches(SendRequest(port, get), idle));

  // Samples from the 16 columns; lingering runs are replaced and killed.
  const std::regex sample("idle=77, swap=785432, \nphysmemfree=2000, swappedin=5, swappedout=6\\.");
  EXPECT_TRUE(Eventually([&] {
    const std::string log = probe_->Log();
    return std::distance(std::sregex_iterator(log.begin(), log.end(), sample), {}) >= 3;
  }));
  EXPECT_TRUE(Eventually([&] { return probe_->Children().size() <= 1; }));

  EXPECT_EQ(second.Wait(), 1);
  EXPECT_FALSE(fs::exists(second.PidFilePath()));
  const std::string log = second.Log();
  EXPECT_NE(log.find("Failed to bind to port " + std::to_string(port) + ", reason bind("),
            std::string::npos);
  EXPECT_EQ(log.find("Quelm loadprobe stopped"), std::string::npos);
}

// quelmloadctl's conversation: one packet from the percent change (0 to 77), one from the 10 s timer.
TEST_F(CommandTest, QuelmloadctlConversationAndLoadPackets) {
  const std::string port = std::to_string(probe_->port());
  auto run = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--port", port});
    return RunCtl(args);
  };
  const Output get = run({"get"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_TRUE(Matches(get.out, GetDoc() + "No Updates</znalbreply>\n")) << get.out;
  EXPECT_EQ(get.err, "");

  Ctl changed({"listen", "--port", "0", "--count", "1", "--timeout", "30000"});
  Ctl timed({"listen", "--port", "0", "--count", "1", "--pretty", "--timeout", "30000"});
  const int changedPort = ListenPort(changed), timedPort = ListenPort(timed);
  ASSERT_TRUE(changedPort != 0 && timedPort != 0) << changed.Err() << timed.Err();
  EXPECT_EQ(run({"create", "--id", "1", "--subscriber", "127.0.0.1:" + std::to_string(changedPort),
                 "--stat", "cpu,vmem", "--percentchange", "30", "--replyfreq", "60000"}).status, 0);
  EXPECT_EQ(run({"create", "--id", "2", "--subscriber", "127.0.0.1:" + std::to_string(timedPort),
                 "--stat", "cpu,vmem", "--percentchange", "90"}).status, 0);

  const Output table = RunCtl({"get", "--pretty", "--host", "localhost", "--port", port});
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_NE(table.out.find("Subscribed hosts: 2\n  ID  HOST       UDP PORT  REPLY FREQ  CHANGE"),
            std::string::npos) << table.out;
  EXPECT_TRUE(std::regex_search(
      table.out, std::regex("\n  2   127\\.0\\.0\\.1  " + std::to_string(timedPort) +
                            " +10 s +90 % +5 s +3 +cpu=\\d+ vmem=\\d+ +[A-Z][a-z]{2}, [^\n]+ "
                            "GMT\n")))
      << table.out;

  const Output changedOut = changed.Finish(), timedOut = timed.Finish();
  EXPECT_EQ(changedOut.status, 0) << changedOut.err;
  EXPECT_TRUE(Matches(changedOut.out, "<\\?xml version=\"1.0\"\\?><znalbdata><id>1</id><seqno>\\d+"
                                      "</seqno><stats>cpu=77 vmem=\\d+ vmax=768 pmem=2 pmax=256 "
                                      "sin=5 sout=6 </stats></znalbdata>\n")) << changedOut.out;
  EXPECT_EQ(timedOut.status, 0) << timedOut.err;
  EXPECT_TRUE(Matches(timedOut.out, "id=2 seqno=\\d+ \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d "
                                    "UTC\\) cpu=77 vmem=\\d+ vmax=768 pmem=2 pmax=256 sin=5 "
                                    "sout=6\n")) << timedOut.out;
  EXPECT_TRUE(probe_->WaitForLog("sent to 127.0.0.1"));

  const Output killed = run({"kill", "--id", "1"}), again = run({"kill", "--id", "1"});
  EXPECT_EQ(killed.status, 0) << killed.err;
  EXPECT_EQ(killed.out, Reply("kill", "<id>1</id>") + "\n");
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "quelmloadctl: Host with id 1 not found\n");
  EXPECT_EQ(again.out, Reply("error", "<error>get /Host with id 1 not found</error>") + "\n");
  EXPECT_EQ(run({"kill", "--id", "2"}).status, 0);
  const Output admin = run({"admin", "--samplerate", "5000", "--windowsize", "3"});
  EXPECT_EQ(admin.status, 1);
  EXPECT_EQ(admin.err, "quelmloadctl: Command not implemented\n");
}

// Bad arguments, no connection, no reply, and listening in vain.
TEST(CtlTest, ExitStatusAndOneLineMessageWithoutAProbe) {
  // Never accepting, then closed: first no reply, then a refused connection.
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
      {{"kill", "--id", "seven"}, 64, "'seven' is not a number"},
      {{"--port", "0", "get"}, 64, "out of range"},
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
