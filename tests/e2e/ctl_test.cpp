// quelmloadctl end to end: the built client against the real probe, against
// stand-in servers that record its requests byte for byte, and on bad input.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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

// The client as a child process with its standard output and error on pipes.
class Ctl {
 public:
  explicit Ctl(const std::vector<std::string>& args) {
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return;
    std::vector<std::string> all{QUELM_CTL_BINARY};
    all.insert(all.end(), args.begin(), args.end());
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], 1);
      dup2(err[1], 2);
      std::vector<char*> argv;
      for (auto& a : all) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(126);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }

  ~Ctl() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (out_ >= 0) close(out_);
    if (err_ >= 0) close(err_);
  }

  // Reads standard error until it holds text; false after the timeout.
  bool WaitForError(const std::string& text, milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    while (result_.err.find(text) == std::string::npos) {
      if (Clock::now() >= end || !Pump(end)) return false;
    }
    return true;
  }

  // Collects all output until the client ends; kills it after the timeout.
  CtlResult Finish(milliseconds timeout = seconds(30)) {
    const auto end = Clock::now() + timeout;
    while (Pump(end)) {
    }
    int status = 0;
    if (Clock::now() >= end) kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    reaped_ = true;
    result_.status = WIFEXITED(status) && Clock::now() < end ? WEXITSTATUS(status) : -1;
    return result_;
  }

  const CtlResult& sofar() const { return result_; }

 private:
  // One round of reading; false once both pipes are closed or time is up.
  bool Pump(Clock::time_point end) {
    pollfd p[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
    if (left <= 0 || (out_ < 0 && err_ < 0)) return false;
    if (poll(p, 2, static_cast<int>(left)) <= 0) return false;
    char buf[4096];
    std::string* texts[2] = {&result_.out, &result_.err};
    int* fds[2] = {&out_, &err_};
    for (int i = 0; i < 2; ++i) {
      if (*fds[i] < 0 || p[i].revents == 0) continue;
      const ssize_t n = read(*fds[i], buf, sizeof buf);
      if (n > 0) {
        texts[i]->append(buf, static_cast<size_t>(n));
      } else {
        close(*fds[i]);
        *fds[i] = -1;
      }
    }
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
  bool reaped_ = false;
  CtlResult result_;
};

CtlResult RunCtl(const std::vector<std::string>& args) { return Ctl(args).Finish(); }

// The UDP port a listening client reports on standard error, or 0.
int ListenPort(Ctl& listener) {
  const std::string marker = "listening for load packets on UDP port ";
  if (!listener.WaitForError(marker, seconds(5)) || !listener.WaitForError("\n", seconds(5))) {
    return 0;
  }
  const std::string& err = listener.sofar().err;
  return std::atoi(err.c_str() + err.find(marker) + marker.size());
}

// A TCP server on 127.0.0.1 that takes one connection, keeps what its first
// read returned (the probe acts on exactly that) and answers with a fixed text.
class StandIn {
 public:
  explicit StandIn(std::string reply, bool answer = true) : reply_(std::move(reply)) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    listen(fd_, 1);
    socklen_t len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    if (answer) thread_ = std::thread([this] { Serve(); });
  }
  ~StandIn() {
    if (thread_.joinable()) thread_.join();
    close(fd_);
  }
  int port() const { return port_; }
  // The first read of the connection; call after the client has finished.
  std::string Request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  void Serve() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0) return;
    const int conn = accept(fd_, nullptr, nullptr);
    if (conn < 0) return;
    pollfd c{conn, POLLIN, 0};
    char buf[2048];
    if (poll(&c, 1, 10000) > 0) {
      const ssize_t n = read(conn, buf, sizeof buf);
      if (n > 0) request_.assign(buf, static_cast<size_t>(n));
    }
    (void)!write(conn, reply_.data(), reply_.size());
    close(conn);
  }

  std::string reply_, request_;
  int fd_ = -1, port_ = 0;
  std::thread thread_;
};

std::vector<std::string> At(int port, std::vector<std::string> args) {
  args.insert(args.begin(), {"--port", std::to_string(port)});
  return args;
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

class CtlProbeTest : public ::testing::Test {
 protected:
  // Start-up times the processor for a second or two of CPU time, which
  // takes longer on a loaded machine.
  void StartProbe() {
    probe_.Start();
    ASSERT_TRUE(probe_.WaitForPidFile(seconds(60)));
  }
  CtlResult Run(std::vector<std::string> args) { return RunCtl(At(probe_.port(), args)); }
  ProbeRunner probe_;
};

TEST_F(CtlProbeTest, GetPrintsTheDocumentPlainAndPretty) {
  StartProbe();
  const std::string port = std::to_string(probe_.port());
  const CtlResult get = Run({"get"});
  EXPECT_EQ(get.status, 0) << get.err;
  EXPECT_TRUE(std::regex_match(
      get.out, std::regex("<\\?xml version=\"1.0\"\\?><znalbreply type=\"get\"><version>1.0"
                          "</version><port>" + port + "</port><samplerate>5</samplerate>"
                          "<windowsize>3</windowsize><stats>cpu=\\d+ bogo=\\d+ vmem=\\d+ "
                          "</stats><time>[^<]+</time>No Updates</znalbreply>\n")))
      << get.out;
  EXPECT_EQ(get.err, "");

  const CtlResult pretty = RunCtl({"get", "--pretty", "--host", "localhost", "--port", port});
  EXPECT_EQ(pretty.status, 0) << pretty.err;
  EXPECT_TRUE(std::regex_search(pretty.out, std::regex("\n  Command port +" + port + "\n")))
      << pretty.out;
  EXPECT_TRUE(std::regex_search(pretty.out, std::regex("\n  Sample rate +5 s\n"))) << pretty.out;
  EXPECT_NE(pretty.out.find("\nSubscribed hosts: No Updates\n"), std::string::npos)
      << pretty.out;

  ASSERT_EQ(Run({"create", "--id", "5", "--subscriber", "127.0.0.1:9", "--stat", "cpu,vmem",
                 "--percentchange", "30"}).status, 0);
  const CtlResult table = Run({"get", "--pretty"});
  EXPECT_EQ(table.status, 0);
  EXPECT_NE(table.out.find("Subscribed hosts: 1\n  ID  HOST       UDP PORT  REPLY FREQ  CHANGE"),
            std::string::npos)
      << table.out;
  EXPECT_TRUE(std::regex_search(
      table.out, std::regex("\n  5   127\\.0\\.0\\.1  9         10 s        30 %    5 s          "
                            "3       cpu=\\d+ vmem=\\d+  [A-Z][a-z]{2}, [^\n]+ GMT\n")))
      << table.out;
}

TEST_F(CtlProbeTest, CreatedSubscribersReceivePacketsThroughListen) {
  // A fake measuring tool whose runs end with idle 77, so the percent-change
  // check sends a packet at the end of the first run.
  const std::string tool = probe_.dir() + "/tool";
  ProbeRunner::WriteScript(tool,
      "echo 'first header'\necho 'second header'\necho '1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1'\n"
      "echo '0 0 0 1000 2000 3 4 5 6 7 8 9 10 11 12 77'\nsleep 1\n");
  probe_.Set("probepath", tool);
  StartProbe();

  Ctl raw({"listen", "--port", "0", "--count", "1", "--timeout", "20000"});
  Ctl pretty({"listen", "--port", "0", "--count", "1", "--pretty", "--timeout", "20000"});
  const int rawPort = ListenPort(raw);
  const int prettyPort = ListenPort(pretty);
  ASSERT_NE(rawPort, 0) << raw.sofar().err;
  ASSERT_NE(prettyPort, 0) << pretty.sofar().err;

  for (const auto& [id, udp] : {std::pair{"1", rawPort}, std::pair{"2", prettyPort}}) {
    const CtlResult created = Run({"create", "--id", id, "--subscriber",
                                   "127.0.0.1:" + std::to_string(udp), "--stat", "cpu,vmem",
                                   "--percentchange", "20"});
    EXPECT_EQ(created.status, 0) << created.err;
    EXPECT_TRUE(std::regex_match(
        created.out, std::regex(".*<znalbreply type=\"create\"><version>1.0</version><id>" +
                                std::string(id) + "</id><stats>cpu=\\d+ vmem=\\d+ </stats>"
                                "</znalbreply>\n")))
        << created.out;
  }

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
      std::regex("id=2 seqno=\\d+ \\(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d UTC\\) cpu=77 "
                 "vmem=\\d+ vmax=768 pmem=2 pmax=256 sin=5 sout=6\n")))
      << prettyOut.out;
}

TEST_F(CtlProbeTest, KillAdminAndErrorDocuments) {
  StartProbe();
  ASSERT_EQ(Run({"create", "--id", "4", "--subscriber", "127.0.0.1:9", "--stat", "bogo"}).status,
            0);

  const CtlResult killed = Run({"kill", "--id", "4"});
  EXPECT_EQ(killed.status, 0) << killed.err;
  EXPECT_EQ(killed.out,
            kXml + "<znalbreply type=\"kill\"><version>1.0</version><id>4</id></znalbreply>\n");
  EXPECT_EQ(killed.err, "");

  const CtlResult again = Run({"kill", "--id", "4"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "quelmloadctl: Host with id 4 not found\n");
  EXPECT_EQ(again.out, kXml + "<znalbreply type=\"error\"><version>1.0</version><error>get /"
                              "Host with id 4 not found</error></znalbreply>\n");

  const CtlResult admin = Run({"admin", "--samplerate", "5000", "--windowsize", "3"});
  EXPECT_EQ(admin.status, 1);
  EXPECT_EQ(admin.err, "quelmloadctl: Command not implemented\n");

  // Values the probe refuses are passed on, and its answer is reported.
  ASSERT_EQ(Run({"create", "--id", "6", "--subscriber", "127.0.0.1:9", "--stat", "cpu"}).status,
            0);
  const CtlResult duplicate =
      Run({"create", "--id", "6", "--subscriber", "127.0.0.1:9", "--stat", "cpu"});
  EXPECT_EQ(duplicate.status, 1);
  EXPECT_EQ(duplicate.err, "quelmloadctl: Host not created\n");
  const CtlResult zero = Run({"create", "--id", "0", "--subscriber", "127.0.0.1:9", "--stat",
                              "cpu", "--samplerate", "0"});
  EXPECT_EQ(zero.status, 1);
  EXPECT_EQ(zero.err, "quelmloadctl: Error parsing samplerate; Error parsing id\n");
}

TEST(CtlRequestTest, RequestsGoOutInOneWriteExactlyAsExpected) {
  const std::string created = kXml + "<znalbreply type=\"create\"></znalbreply>";
  struct Case {
    std::vector<std::string> args;
    std::string request;
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
  };
  for (const Case& c : cases) {
    StandIn standIn(created);
    const CtlResult result = RunCtl(At(standIn.port(), c.args));
    EXPECT_EQ(standIn.Request(), c.request);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, created + "\n");
  }

  // Without --port, admin asks for the port it talks to.
  StandIn standIn(created);
  RunCtl(At(standIn.port(), {"admin", "--samplerate", "1", "--windowsize", "2"}));
  EXPECT_NE(standIn.Request().find("<port>" + std::to_string(standIn.port()) + "</port>"),
            std::string::npos);
}

TEST(CtlRequestTest, ConnectionFailuresExitTwoWithOneLine) {
  const CtlResult refused = RunCtl(At(ProbeRunner::FreeTcpPort(), {"get"}));
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(Lines(refused.err), 1u);
  EXPECT_NE(refused.err.find("cannot connect to 127.0.0.1:"), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find("Connection refused"), std::string::npos) << refused.err;
  EXPECT_EQ(refused.out, "");

  // A server that accepts (in its backlog) but never answers.
  StandIn silent("", false);
  const auto start = Clock::now();
  const CtlResult quiet = RunCtl(At(silent.port(), {"--timeout", "300", "get"}));
  EXPECT_EQ(quiet.status, 2);
  EXPECT_EQ(quiet.err, "quelmloadctl: no reply from 127.0.0.1:" +
                           std::to_string(silent.port()) + " within 300 ms\n");
  EXPECT_LT(Clock::now() - start, seconds(5));

}

TEST(CtlRequestTest, ARejectionOrAnEmptyCloseIsReported) {
  StandIn rejecting("Message is either too short or too long to be valid");
  const CtlResult rejected = RunCtl(At(rejecting.port(), {"get"}));
  EXPECT_EQ(rejected.status, 1);
  EXPECT_EQ(rejected.err, "quelmloadctl: unexpected reply from 127.0.0.1:" +
                              std::to_string(rejecting.port()) +
                              ": Message is either too short or too long to be valid\n");

  StandIn closing("");
  const CtlResult closed = RunCtl(At(closing.port(), {"get"}));
  EXPECT_EQ(closed.status, 2);
  EXPECT_NE(closed.err.find("closed the connection without a reply"), std::string::npos);
}

TEST(CtlArgumentsTest, BadArgumentsExit64WithUsage) {
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"frobnicate"},
      {"--bogus", "get"},
      {"get", "--id", "3"},
      {"get", "extra"},
      {"kill"},
      {"kill", "--id"},
      {"kill", "--id", "--pretty"},
      {"kill", "--id", "seven"},
      {"kill", "--id", "-1"},
      {"kill", "--id", "4294967296"},
      {"--port", "65536", "get"},
      {"--port", "0", "get"},
      {"--timeout", "soon", "get"},
      {"get", "--pretty=yes"},
      {"create", "--id", "1", "--stat", "cpu"},
      {"create", "--id", "1", "--subscriber", "127.0.0.1:9"},
      {"create", "--id", "1", "--subscriber", "127.0.0.1", "--stat", "cpu"},
      {"create", "--id", "1", "--subscriber", ":9", "--stat", "cpu"},
      {"create", "--id", "1", "--subscriber", "127.0.0.1:http", "--stat", "cpu"},
      {"create", "--id", "1", "--subscriber", "a<b:9", "--stat", "cpu"},
      {"create", "--id", "1", "--subscriber", "127.0.0.1:9", "--stat", "cpu,disk"},
      {"create", "--id", "1", "--subscriber", "127.0.0.1:9", "--stat", "cpu,cpu"},
      {"create", "--id", "1", "--subscriber", "h" + std::string(400, 'x') + ":9", "--stat",
       "cpu"},
      {"admin", "--samplerate", "5000"},
      {"listen"},
      {"listen", "--port", "0", "--count", "0"},
      {"--port", "3579", "listen", "--port", "0"},
  };
  for (const auto& args : bad) {
    std::string shown;
    for (const auto& a : args) shown += a + " ";
    const CtlResult r = RunCtl(args);
    EXPECT_EQ(r.status, 64) << shown;
    EXPECT_EQ(r.err.rfind("quelmloadctl: ", 0), 0u) << shown << r.err;
    EXPECT_NE(r.err.find("\nUsage: quelmloadctl"), std::string::npos) << shown;
    EXPECT_EQ(r.out, "") << shown;
  }
  EXPECT_NE(RunCtl({"create", "--id", "1", "--subscriber", "h" + std::string(400, 'x') + ":9",
                    "--stat", "cpu"}).err.find("at most 512"),
            std::string::npos);

  const CtlResult help = RunCtl({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.out.rfind("Usage: quelmloadctl", 0), 0u);
  EXPECT_EQ(help.err, "");
  EXPECT_EQ(RunCtl({"kill", "--help"}).status, 0);
}

TEST(CtlListenTest, TimeoutBusyPortAndForeignDatagrams) {
  const CtlResult nothing = RunCtl({"listen", "--port", "0", "--count", "1", "--timeout", "200"});
  EXPECT_EQ(nothing.status, 2);
  EXPECT_NE(nothing.err.find("received 0 of 1 load packets within 200 ms"), std::string::npos);
  // Without a count, the timeout simply ends the listening.
  EXPECT_EQ(RunCtl({"listen", "--port", "0", "--timeout", "100"}).status, 0);

  Ctl first({"listen", "--port", "0", "--count", "2", "--pretty", "--timeout", "10000"});
  const int port = ListenPort(first);
  ASSERT_NE(port, 0);
  const CtlResult busy = RunCtl({"listen", "--port", std::to_string(port), "--timeout", "100"});
  EXPECT_EQ(busy.status, 2);
  EXPECT_NE(busy.err.find("cannot bind UDP port " + std::to_string(port)), std::string::npos);

  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  for (const std::string text : {"hello\nworld", "<znalbdata><id>3</id><seqno>0</seqno><stats>"
                                                 "cpu=1 </stats></znalbdata>"}) {
    sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  }
  close(fd);
  const CtlResult got = first.Finish();
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.out, "not a load packet: hello\\nworld\n"
                     "id=3 seqno=0 (1970-01-01 00:00:00 UTC) cpu=1\n");
}

}  // namespace
