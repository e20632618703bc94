// quelmloadctl end to end: the built client against the real probe, against
// stand-in servers that record its requests byte for byte, and on bad input.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "probe_runner.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

const std::string kXml = "<?xml version=\"1.0\"?>";

struct CtlResult {
  int status = -1;  // exit status, -1 when it had to be killed
  std::string out, err;
};

// The client as a child process; its standard output and error go to
// temporary files, which no other child can hold open. A client still
// running after 30 s is ended by its alarm.
class Ctl {
 public:
  explicit Ctl(std::vector<std::string> args) : out_(tmpfile()), err_(tmpfile()) {
    args.insert(args.begin(), QUELM_CTL_BINARY);
    pid_ = fork();
    if (pid_ == 0) {
      alarm(30);
      dup2(fileno(out_), 1);
      dup2(fileno(err_), 2);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(126);
    }
  }
  ~Ctl() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    fclose(out_);
    fclose(err_);
  }

  std::string Err() const { return Read(err_); }

  CtlResult Finish() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read(out_), Read(err_)};
  }

 private:
  static std::string Read(FILE* f) {
    std::string text;
    char buf[4096];
    for (ssize_t n; (n = pread(fileno(f), buf, sizeof buf, text.size())) > 0;) {
      text.append(buf, static_cast<size_t>(n));
    }
    return text;
  }

  FILE* out_;
  FILE* err_;
  pid_t pid_ = -1;
};

CtlResult RunCtl(const std::vector<std::string>& args) { return Ctl(args).Finish(); }

std::vector<std::string> At(int port, std::vector<std::string> args) {
  args.insert(args.begin(), {"--port", std::to_string(port)});
  return args;
}

// The UDP port a listening client reports on standard error, or 0.
int ListenPort(const Ctl& listener) {
  const std::string marker = "listening for load packets on UDP port ";
  for (const auto end = Clock::now() + seconds(5); Clock::now() < end;) {
    const std::string err = listener.Err();
    const size_t at = err.find(marker);
    if (at != std::string::npos && err.find('\n', at) != std::string::npos) {
      return std::atoi(err.c_str() + at + marker.size());
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
  return 0;
}

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
  ~StandIn() {
    if (fd >= 0) close(fd);
  }

  // Takes one connection, answers it with reply and returns what the first
  // read returned: the probe acts on exactly that.
  std::string Answer(const std::string& reply) {
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

// One probe for the client's whole conversation with it. Its fake measuring
// tool ends every run with idle 77, so the percent-change check sends each
// subscriber a packet at the end of the first run after its creation.
TEST(CtlProbeTest, GetCreateListenKillAndAdmin) {
  ProbeRunner probe;
  const std::string tool = probe.dir() + "/tool";
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\necho 'second header'\necho '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nsleep 1\n");
  probe.Set("probepath", tool);
  probe.Start();
  // Start-up times the processor, which takes longer on a loaded machine.
  ASSERT_TRUE(probe.WaitForPidFile(seconds(60)));
  const std::string port = std::to_string(probe.port());
  auto run = [&probe](std::vector<std::string> args) { return RunCtl(At(probe.port(), args)); };

  const CtlResult get = run({"get"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_TRUE(std::regex_match(
      get.out, std::regex("<\\?xml version=\"1.0\"\\?><znalbreply type=\"get\"><version>1.0"
                          "</version><port>" + port + "</port><samplerate>5</samplerate>"
                          "<windowsize>3</windowsize><stats>cpu=\\d+ bogo=\\d+ vmem=\\d+ "
                          "</stats><time>[^<]+</time>No Updates</znalbreply>\n")))
      << get.out;
  EXPECT_EQ(get.err, "");

  Ctl raw({"listen", "--port", "0", "--count", "1", "--timeout", "20000"});
  Ctl pretty({"listen", "--port", "0", "--count", "2", "--pretty", "--timeout", "20000"});
  const int rawPort = ListenPort(raw);
  const int prettyPort = ListenPort(pretty);
  ASSERT_NE(rawPort, 0) << raw.Err();
  ASSERT_NE(prettyPort, 0) << pretty.Err();
  // A stranger's datagram first; the pretty listener counts and shows it.
  const int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(prettyPort));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sendto(udp, "hello\nworld", 11, 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  close(udp);
  for (const auto& [id, udp] : {std::pair{"1", rawPort}, std::pair{"2", prettyPort}}) {
    const CtlResult created = run({"create", "--id", id, "--subscriber",
                                   "127.0.0.1:" + std::to_string(udp), "--stat", "cpu,vmem",
                                   "--percentchange", "30"});
    ASSERT_EQ(created.status, 0) << created.err;
  }

  const CtlResult table = RunCtl({"get", "--pretty", "--host", "localhost", "--port", port});
  EXPECT_EQ(table.status, 0) << table.err;
  EXPECT_TRUE(std::regex_search(table.out, std::regex("\n  Command port +" + port + "\n")))
      << table.out;
  EXPECT_NE(table.out.find("Subscribed hosts: 2\n  ID  HOST       UDP PORT  REPLY FREQ  CHANGE"),
            std::string::npos)
      << table.out;
  EXPECT_TRUE(std::regex_search(
      table.out, std::regex("\n  1   127\\.0\\.0\\.1  " + std::to_string(rawPort) +
                            " +10 s +30 % +5 s +3 +cpu=\\d+ vmem=\\d+ +[A-Z][a-z]{2}, [^\n]+ GMT\n")))
      << table.out;

  const CtlResult rawOut = raw.Finish();
  EXPECT_EQ(rawOut.status, 0) << rawOut.err;
  EXPECT_TRUE(std::regex_match(
      rawOut.out, std::regex("<\\?xml version=\"1.0\"\\?><znalbdata><id>1</id><seqno>\\d+"
                             "</seqno><stats>cpu=77 vmem=\\d+ vmax=768 pmem=2 pmax=256 sin=5 "
                             "sout=6 </stats></znalbdata>\n")))
      << rawOut.out;
  const CtlResult prettyOut = pretty.Finish();
  EXPECT_EQ(prettyOut.status, 0) << prettyOut.err;
  EXPECT_TRUE(std::regex_match(
      prettyOut.out,
      std::regex("not a load packet: hello\\\\nworld\n"
                 "id=2 seqno=\\d+ \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC\\) cpu=77 "
                 "vmem=\\d+ vmax=768 pmem=2 pmax=256 sin=5 sout=6\n")))
      << prettyOut.out;

  const CtlResult killed = run({"kill", "--id", "1"});
  EXPECT_EQ(killed.status, 0) << killed.err;
  EXPECT_EQ(killed.out,
            kXml + "<znalbreply type=\"kill\"><version>1.0</version><id>1</id></znalbreply>\n");
  const CtlResult again = run({"kill", "--id", "1"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "quelmloadctl: Host with id 1 not found\n");
  EXPECT_EQ(again.out, kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /"
                              "Host with id 1 not found</error></znalbreply>\n");
  const CtlResult admin = run({"admin", "--samplerate", "5000", "--windowsize", "3"});
  EXPECT_EQ(admin.status, 1);
  EXPECT_EQ(admin.err, "quelmloadctl: Command not implemented\n");
  // Values the probe refuses are passed on, and its answer is reported.
  const CtlResult zero = run({"create", "--id", "0", "--subscriber", "127.0.0.1:9", "--stat",
                              "cpu", "--samplerate", "0"});
  EXPECT_EQ(zero.status, 1);
  EXPECT_EQ(zero.err, "quelmloadctl: Error parsing samplerate; Error parsing id\n");
}

TEST(CtlRequestTest, RequestsGoOutInOneWriteExactlyAsExpected) {
  const std::string created = kXml + "<znalbreply type=\"create\"></znalbreply>";
  const struct {
    std::vector<std::string> args;
    std::string request;  // PORT stands for the stand-in's port
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
      {{"kill", "--id", "12"},
       "<znalbreq type=\"kill\"><id>12</id><version>1.0</version></znalbreq>"},
      {{"admin", "--samplerate", "5000", "--windowsize", "3", "--port", "4000"},
       "<znalbreq type=\"admin\"><port>4000</port><samplerate>5000</samplerate><windowsize>3"
       "</windowsize><version>1.0</version></znalbreq>"},
      // Without its own --port, admin asks for the port it talks to.
      {{"admin", "--samplerate", "1", "--windowsize", "2"},
       "<znalbreq type=\"admin\"><port>PORT</port><samplerate>1</samplerate><windowsize>2"
       "</windowsize><version>1.0</version></znalbreq>"},
  };
  for (const auto& c : cases) {
    StandIn standIn;
    Ctl ctl(At(standIn.port, c.args));
    EXPECT_EQ(standIn.Answer(created),
              std::regex_replace(c.request, std::regex("PORT"), std::to_string(standIn.port)));
    const CtlResult result = ctl.Finish();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, created + "\n");
  }
}

TEST(CtlRequestTest, FailedExchangesAreOneLine) {
  enum Server { kClosed, kSilent, kAnswering };
  const struct {
    Server server;
    const char* reply;
    int status;
    std::string err;  // after "quelmloadctl: "; PORT stands for the server's port
  } cases[] = {
      {kClosed, "", 2, "cannot connect to 127.0.0.1:PORT: Connection refused\n"},
      {kSilent, "", 2, "no reply from 127.0.0.1:PORT within 300 ms\n"},
      {kAnswering, "", 2, "127.0.0.1:PORT closed the connection without a reply\n"},
      {kAnswering, "Message is either too short or too long to be valid", 1,
       "unexpected reply from 127.0.0.1:PORT: Message is either too short or too long to be "
       "valid\n"},
  };
  for (const auto& c : cases) {
    StandIn server;
    if (c.server == kClosed) {
      close(server.fd);
      server.fd = -1;
    }
    Ctl ctl(At(server.port, {"--timeout", "300", "get"}));
    if (c.server == kAnswering) server.Answer(c.reply);
    const CtlResult r = ctl.Finish();
    EXPECT_EQ(r.status, c.status) << c.err;
    EXPECT_EQ(r.err, "quelmloadctl: " + std::regex_replace(c.err, std::regex("PORT"),
                                                           std::to_string(server.port)));
    // Whatever came back is still printed.
    EXPECT_EQ(r.out, *c.reply ? std::string(c.reply) + "\n" : "");
  }
}

TEST(CtlArgumentsTest, BadArgumentsExit64WithUsage) {
  const struct {
    std::vector<std::string> args;
    std::string says;
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
  };
  for (const auto& c : cases) {
    const std::string shown = testing::PrintToString(c.args);
    const CtlResult r = RunCtl(c.args);
    EXPECT_EQ(r.status, 64) << shown;
    EXPECT_EQ(r.err.rfind("quelmloadctl: ", 0), 0u) << shown << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << shown << r.err;
    EXPECT_NE(r.err.find("\nUsage: quelmloadctl"), std::string::npos) << shown;
    EXPECT_EQ(r.out, "") << shown;
  }
}

TEST(CtlListenTest, TimeoutEndsListening) {
  const CtlResult nothing = RunCtl({"listen", "--port", "0", "--count", "1", "--timeout", "200"});
  EXPECT_EQ(nothing.status, 2);
  EXPECT_NE(nothing.err.find("received 0 of 1 load packets within 200 ms"), std::string::npos);
  // Without a count, the timeout simply ends the listening.
  EXPECT_EQ(RunCtl({"listen", "--port", "0", "--timeout", "100"}).status, 0);
}

}  // namespace
