// The command port end to end: real clients, real replies, real UDP packets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

const std::string kXml = "<?xml version=\"1.0\"?>";

// A UDP socket on 127.0.0.1 standing in for a subscribed load balancer.
class Subscriber {
 public:
  Subscriber() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~Subscriber() { close(fd_); }
  int port() const { return port_; }
  // The next datagram, or "" after the timeout.
  std::string Receive(std::chrono::milliseconds timeout) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0) return "";
    char buf[2048];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
  }

 private:
  int fd_;
  int port_;
};

std::string CreateRequest(int id, int udpPort, const std::string& stats, int percent = 20) {
  return "<znalbreq type=\"create\"><host>127.0.0.1</host><port>" + std::to_string(udpPort) +
         "</port><samplerate>1</samplerate><windowsize>5</windowsize><replyfreq>10</replyfreq>"
         "<percentchange>" + std::to_string(percent) + "</percentchange>" + stats +
         "<id>" + std::to_string(id) + "</id><version>1.0</version></znalbreq>";
}

std::string ErrorDocument(const std::string& text) {
  return kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /" + text +
         "</error></znalbreply>";
}

std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  pclose(p);
  return out;
}

class CommandTest : public ::testing::Test {
 protected:
  void StartProbe() {
    probe_.Start();
    ASSERT_TRUE(probe_.WaitForPidFile());
  }
  ProbeRunner probe_;
};

TEST_F(CommandTest, GetWithCurlAnswersAValidDocumentWithoutUpdates) {
  StartProbe();
  const std::string reply = RunCommand("curl --http0.9 -s --max-time 10 'http://127.0.0.1:" +
                                       std::to_string(probe_.port()) + "/?get&znalbinfo'");
  const std::regex get(
      "<\\?xml version=\"1.0\"\\?><znalbreply type=\"get\"><version>1.0</version><port>" +
      std::to_string(probe_.port()) +
      "</port><samplerate>5</samplerate><windowsize>3</windowsize><stats>cpu=\\d+ bogo=\\d+ "
      "vmem=\\d+ </stats><time>[A-Z][a-z]{2}, \\d\\d [A-Z][a-z]{2} \\d{4} \\d\\d:\\d\\d:\\d\\d "
      "GMT</time>No Updates</znalbreply>");
  EXPECT_TRUE(std::regex_match(reply, get)) << reply;

  const std::string file = probe_.dir() + "/get.xml";
  ProbeRunner::WriteFile(file, reply);
  EXPECT_EQ(RunCommand("xmllint --noout " + file + " 2>&1; echo $?"), "0\n");
  EXPECT_TRUE(probe_.WaitForLog("Response is \n" + kXml));
}

TEST_F(CommandTest, CreateGetKillAndKillAgain) {
  StartProbe();
  Subscriber subscriber;
  const std::string created = SendRequest(probe_.port(), CreateRequest(7, subscriber.port(),
                                                                       "<stat>cpu</stat>"));
  EXPECT_TRUE(std::regex_match(
      created, std::regex("<\\?xml version=\"1.0\"\\?><znalbreply type=\"create\"><version>1.0"
                          "</version><id>7</id><stats>cpu=\\d+ </stats></znalbreply>")))
      << created;

  const std::string get = SendRequest(probe_.port(), "GET /?get&znalbinfo HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(std::regex_search(
      get, std::regex("</time><connection><id>7</id><host>127.0.0.1</host><port>" +
                      std::to_string(subscriber.port()) +
                      "</port><replyfrequency>10</replyfrequency><percentchange>20"
                      "</percentchange><samplerate>5</samplerate><windowsize>5</windowsize>"
                      "<stats>cpu=\\d+ </stats><time>[^<]+</time></connection></znalbreply>$")))
      << get;

  const std::string kill = "<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>";
  EXPECT_EQ(SendRequest(probe_.port(), kill),
            kXml + "<znalbreply type=\"kill\"><version>1.0</version><id>7</id></znalbreply>");
  EXPECT_EQ(SendRequest(probe_.port(), kill), ErrorDocument("Host with id 7 not found"));
  EXPECT_NE(SendRequest(probe_.port(), "GET /?get&znalbinfo").find("No Updates"),
            std::string::npos);
}

TEST_F(CommandTest, SubscriberReceivesPacketsOnPercentChangeAndAtTheReplyFrequency) {
  // A fake tool whose runs end with an average idle value, so each run's end
  // feeds the percent-change check.
  const std::string tool = probe_.dir() + "/tool";
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\necho 'second header'\necho '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nsleep 1\n");
  probe_.Set("probepath", tool);
  StartProbe();
  Subscriber subscriber;
  ASSERT_NE(SendRequest(probe_.port(), CreateRequest(9, subscriber.port(),
                                                     "<stat>cpu</stat><stat>vmem</stat>"))
                .find("type=\"create\""),
            std::string::npos);
  const auto created = std::chrono::steady_clock::now();
  const std::regex packet(
      "<\\?xml version=\"1.0\"\\?><znalbdata><id>9</id><seqno>\\d+</seqno><stats>cpu=77 "
      "vmem=\\d+ vmax=768 pmem=2 pmax=256 sin=5 sout=6 </stats></znalbdata>");
  // The first packet comes from the percent change (0 to 77) at a run's end.
  const std::string first = subscriber.Receive(std::chrono::seconds(5));
  EXPECT_TRUE(std::regex_match(first, packet)) << first;
  EXPECT_LT(std::chrono::steady_clock::now() - created, std::chrono::seconds(5));
  // Later runs see no change; the timer sends 10 seconds after the create.
  std::string timed;
  while (std::chrono::steady_clock::now() - created < std::chrono::seconds(13)) {
    timed = subscriber.Receive(std::chrono::seconds(1));
    if (!timed.empty()) break;
  }
  EXPECT_TRUE(std::regex_match(timed, packet)) << timed;
  EXPECT_GE(std::chrono::steady_clock::now() - created, std::chrono::milliseconds(9500));
  EXPECT_NE(probe_.Log().find("sent to 127.0.0.1"), std::string::npos);
}

TEST_F(CommandTest, CreateSentWithSocat) {
  StartProbe();
  Subscriber subscriber;
  const std::string reply = RunCommand("printf '%s' '" + CreateRequest(5, subscriber.port(),
                                                                        "<stat>vmem</stat>") +
                                       "' | timeout 10 socat -t 2 - TCP:127.0.0.1:" +
                                       std::to_string(probe_.port()));
  EXPECT_TRUE(std::regex_match(
      reply, std::regex("<\\?xml version=\"1.0\"\\?><znalbreply type=\"create\"><version>1.0"
                        "</version><id>5</id><stats>vmem=\\d+ </stats></znalbreply>")))
      << reply;
}

TEST_F(CommandTest, ErrorDocumentsByteForByte) {
  StartProbe();
  const int port = probe_.port();
  EXPECT_EQ(SendRequest(port, "<znalbreq type=\"kill\"><id>7</id></znalbreq>"),
            ErrorDocument("Error parsing version; "));
  EXPECT_EQ(SendRequest(port,
                        "<znalbreq type=\"create\"><host>127.0.0.1</host><port>0</port>"
                        "<samplerate>0</samplerate><windowsize>5</windowsize><replyfreq>10"
                        "</replyfreq><stat>cpu</stat><id>3</id><version>1.0</version>"
                        "</znalbreq>"),
            ErrorDocument("Error parsing port; Error parsing samplerate; Error parsing "
                          "percentchange; "));
  EXPECT_EQ(SendRequest(port,
                        "<znalbreq type=\"admin\"><port>1</port><samplerate>5</samplerate>"
                        "<windowsize>3</windowsize><version>1.0</version></znalbreq>"),
            ErrorDocument("Command not implemented"));
  EXPECT_EQ(SendRequest(port, "<znalbreq type=\"launch\"><version>1.0</version></znalbreq>"),
            ErrorDocument("UNKNOWN"));

  Subscriber subscriber;
  const std::string both =
      SendRequest(port, CreateRequest(11, subscriber.port(), "<stat>bogo</stat><stat>cpu</stat>",
                                      0));
  EXPECT_TRUE(std::regex_match(
      both, std::regex(".*<id>11</id><stats>cpu=\\d+ bogo=\\d+ </stats></znalbreply>")))
      << both;
  EXPECT_EQ(SendRequest(port, CreateRequest(11, subscriber.port(), "<stat>cpu</stat>")),
            ErrorDocument("Host not created"));
}

TEST_F(CommandTest, RequestLengthRules) {
  StartProbe();
  const int port = probe_.port();
  const std::string rejected = "Message is either too short or too long to be valid";
  EXPECT_EQ(SendRequest(port, "GET /"), rejected);
  EXPECT_EQ(SendRequest(port, std::string(513, 'x')), rejected);
  const std::string get = "GET /?get&znalbinfo";
  EXPECT_NE(SendRequest(port, get + std::string(512 - get.size(), ' ')).find("No Updates"),
            std::string::npos);
  EXPECT_TRUE(probe_.WaitForLog("Bad request (length 5). Request is [ GET / ]."));
  EXPECT_TRUE(probe_.WaitForLog("Bad request (length 513)."));
  EXPECT_TRUE(probe_.Running());
}

TEST_F(CommandTest, OneReplyPerConnection) {
  StartProbe();
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(probe_.port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  const std::string get = "GET /?get&znalbinfo";
  ASSERT_EQ(write(fd, get.data(), get.size()), static_cast<ssize_t>(get.size()));
  std::string reply;
  char buf[4096];
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, 5000) > 0) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
    if (reply.find("</znalbreply>") != std::string::npos) {
      // A second request on the same connection is never answered.
      (void)!write(fd, get.data(), get.size());
    }
  }
  close(fd);
  EXPECT_EQ(reply.find("<?xml"), 0u);
  EXPECT_EQ(reply.find("<?xml", 1), std::string::npos);
}

TEST(CommandPortTest, SecondProbeOnABusyPortExitsWithOne) {
  ProbeRunner first;
  first.Start();
  ASSERT_TRUE(first.WaitForPidFile());
  ProbeRunner second;
  second.Set("port", std::to_string(first.port()));
  second.Start();
  EXPECT_EQ(second.Wait(std::chrono::seconds(30)), 1);
  EXPECT_FALSE(std::filesystem::exists(second.PidFilePath()));
  EXPECT_NE(second.Log().find("Failed to bind to port " + std::to_string(first.port()) +
                              ", reason bind("),
            std::string::npos);
  EXPECT_EQ(second.Log().find("Quelm loadprobe stopped"), std::string::npos);
  EXPECT_EQ(first.Stop(SIGTERM), 92);
}

}  // namespace
