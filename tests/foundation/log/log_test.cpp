#include "foundation/log/OmLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "FakeEnv.h"
#include "foundation/string/OmTimeVal.h"

namespace {

enum { kInfo = 0, kError = 1, kFatal = 2, kUnlisted = 3 };

class TestLogger : public OmLog {
 public:
  const char* const* MessageStrings() const override {
    static const char* const kTable[] = {"prog/area/info", "prog/area/error",
                                         "prog/other/fatalerror", "", "", nullptr};
    return kTable;
  }
};

// 1000000000 is 2001/09/09 01:46:40 in UTC.
constexpr uint32_t kSecond = 1000000000;

// Descriptors of this process that refer to path.
std::vector<int> OpenDescriptorsOf(const std::string& path) {
  std::vector<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    auto target = std::filesystem::read_symlink(entry.path(), ec);
    if (!ec && target == path) fds.push_back(std::stoi(entry.path().filename().string()));
  }
  return fds;
}

class LogTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  void SetUp() override {
    dir_ = TempDir();
    OmLog::SetPid(77);
    OmLog::InitLogs(&logger_, OmUniString(dir_));
  }
  void TearDown() override {
    logger_.HaveForked();
    logger_.SetupCSFilters({});
    OmLog::SetPid(0);
    std::filesystem::remove_all(dir_);
  }

  bool Setup(const std::vector<std::string>& clauses) {
    std::vector<OmUniString> list;
    for (const auto& c : clauses) list.emplace_back(c);
    return logger_.SetupCSFilters(list);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string File(const std::string& name) const { return ReadText(Path(name)); }

  TestLogger logger_;
  FakeEnv env_{OmTimeVal(kSecond, 123456)};
  std::string dir_;
};

TEST_F(LogTest, DefaultFilterChoosesDestinationsBySeverity) {
  ASSERT_TRUE(Setup({"*/*/*:a%%PID%%.log", "*/*/*error:p%%PID%%_error.csl",
                     std::string("*/*/fatalerror:") + OmLog::GetStdErrStr()}));
  EXPECT_TRUE(logger_.CsGen(kInfo));
  EXPECT_FALSE(logger_.CsGen(kUnlisted));

  testing::internal::CaptureStderr();
  logger_.CserverLog(kInfo, "info text");
  logger_.CserverLog(kError, "error text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  logger_.CserverLog(kFatal, "fatal text");
  const std::string err = testing::internal::GetCapturedStderr();

  const std::string log = File("a77.log");
  const std::string csl = File("p77_error.csl");
  for (const char* text : {"info text", "error text", "fatal text"}) {
    EXPECT_NE(log.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(csl.find("info text"), std::string::npos);
  EXPECT_NE(csl.find("message=error text\n"), std::string::npos);
  EXPECT_NE(csl.find("message=fatal text\n"), std::string::npos);
  // Standard error gets the plain format.
  EXPECT_NE(err.find("\tprog/other/fatalerror\t#"), std::string::npos);
  EXPECT_NE(err.find("Koramet Brelvane((legacy))\nfatal text\n"), std::string::npos);
}

// Modes are the end-to-end test's (0600); here the children's side.
TEST_F(LogTest, FilesAreCloseOnExec) {
  ASSERT_TRUE(Setup({"*/*/*:m.log", "*/*/*:m.csl"}));
  for (const char* name : {"m.log", "m.csl"}) {
    std::vector<int> fds = OpenDescriptorsOf(Path(name));
    ASSERT_EQ(fds.size(), 1u) << name;
    EXPECT_TRUE(fcntl(fds[0], F_GETFD) & FD_CLOEXEC) << name;
  }
}

TEST_F(LogTest, StructuredLine) {
  ASSERT_TRUE(Setup({"*/*/*:s.csl"}));
  logger_.CserverLog(kError, "a=b, c");
  EXPECT_EQ(File("s.csl"),
            "category=prog/area/error,date=2001/09/09 01:46:40.123,pid=77,"
            "systime=100000000012345,message=a%3db%2c c\n");
}

// One line a message, with the journal's priority: err, info, debug.
TEST(JournalLineTest, PriorityAndOneLine) {
  EXPECT_EQ("<3>p/a/error: first second\n", OmLog::JournalLine("p/a/error", "first\nsecond"));
  EXPECT_EQ("<3>p/a/fatalerror: x\n", OmLog::JournalLine("p/a/fatalerror", "x"));
  EXPECT_EQ("<6>p/a/info: x\n", OmLog::JournalLine("p/a/info", "x"));
  EXPECT_EQ("<7>p/a/moreinfo: x\n", OmLog::JournalLine("p/a/moreinfo", "x"));
}

TEST_F(LogTest, PlainLineWithRunningCounterInUtf8) {
  ASSERT_TRUE(Setup({"*/*/*:p.log"}));
  const unsigned long before = OmLog::MessageCount();
  const OmUniString::Unit units[] = {'c', 0xe9};
  logger_.CserverLog(kInfo, "first");
  logger_.CserverLog(kUnlisted, "counted, not written");
  // Turned away unwritten, yet counted as CserverLog would.
  EXPECT_FALSE(logger_.Admit(kUnlisted));
  EXPECT_TRUE(logger_.Admit(kInfo));
  logger_.CserverLog(kInfo, OmUniString(units, 2));
  EXPECT_EQ(OmLog::MessageCount(), before + 4);
  const std::string head = "2001/09/09 01:46:40.123\t (pid 77)\tprog/area/info\t#";
  const std::string tail = "\tKoramet Brelvane((legacy))\n";
  EXPECT_EQ(File("p.log"), head + std::to_string(before + 1) + tail + "first\n" + head +
                               std::to_string(before + 4) + tail + "c\xc3\xa9\n");
}

TEST_F(LogTest, FailingOpenIsReported) {
  testing::internal::CaptureStderr();
  EXPECT_FALSE(Setup({"*/*/*:missing/x.log", "*/*/*:ok.log"}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Koramet Brelvane Failed to open file \"" + dir_ +
                "/missing/x.log\" for error/log output.\n");
  logger_.CserverLog(kInfo, "still logged");
  EXPECT_NE(File("ok.log").find("still logged"), std::string::npos);
}

}  // namespace
