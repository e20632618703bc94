#include "agent/Messages.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/MyLogger.h"
#include "foundation/log/OmLog.h"

namespace {

struct Case {
  unsigned number;
  const char* category;
  void (*call)();
  const char* text;
};

// Every catalogued message with one set of arguments and its exact text.
const Case kCases[] = {
    {0, "quelmloadprobe/initialize/error", [] { LogPropsNotFound(OmUniString("alpha")); },
     "The properties file alpha was not found. The quelm loadprobe has been initialized\n"
     "using built-in defaults.\n"
     "The most likely cause is incorrect configuration or installation.\n"
     "Create the alpha file or reinstall the Varosakit."},
    {1, "quelmloadprobe/initialize/error",
     [] { LogPathNonExistant(OmUniString("alpha"), OmUniString("beta"), OmUniString("gamma")); },
     "The path or object alpha does not exist. Using the built-in default beta for the\n"
     "attribute gamma. The quelm loadprobe may not function correctly.\n"
     "The most likely cause is incorrect configuration. \n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {2, "quelmloadprobe/initialize/error",
     [] { LogPathNotDirectory(OmUniString("alpha"), OmUniString("beta"), OmUniString("gamma")); },
     "The path alpha does not exist or is not a directory. Using the built-in default beta for the "
     "attribute gamma. The quelm loadprobe may not function correctly.\n"
     "The most likely cause is incorrect configuration. \n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {3, "quelmloadprobe/initialize/error",
     [] { LogScalarAttrNonExistant(OmUniString("alpha"), OmScalar<int>(42)); },
     "The attribute alpha does not exist in the quelmloadprobe.properties file. The built-in "
     "default value 42 will be used.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {4, "quelmloadprobe/initialize/error",
     [] { LogStringAttrNonExistant(OmUniString("alpha"), OmUniString("beta")); },
     "The attribute alpha does not exist in the quelmloadprobe.properties file. The built-in "
     "default value beta will be used.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {5, "quelmloadprobe/initialize/error",
     [] { LogScalarAttrBadValue(OmUniString("alpha"), OmScalar<int>(42), OmScalar<int>(7)); },
     "The attribute alpha has the value 42 which is invalid. The built-in default value 7 will be "
     "used instead.\n"
     "The most likely cause is incorrect configuration.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {6, "quelmloadprobe/process/info", [] { LogStarted(); }, "Quelm loadprobe started."},
    {7, "quelmloadprobe/process/info", [] { LogStopped(OmScalar<int>(-5)); },
     "Quelm loadprobe stopped - exitcode -5."},
    {8, "quelmloadprobe/process/info", [] { LogExitSignal(OmUniString("alpha")); },
     "The loadprobe was stopped by signal alpha."},
    {9, "quelmloadprobe/child/fatalerror", [] { LogBufferFail(OmScalar<int>(-5)); },
     "Failed to malloc/realloc -5 bytes for loadtool pipe buffer.\n"
     "Quelm loadprobe will not work.\n"
     "Free memory by killing unwanted processes."},
    {10, "quelmloadprobe/child/fatalerror", [] { LogForkFail(OmScalar<int>(-5)); },
     "Failed to fork a child process after -5 retries.\n"
     "The quelm loadprobe will not work.\n"
     "Kill off unwanted processes and restart the quelm loadprobe."},
    {11, "quelmloadprobe/child/fatalerror", [] { LogToolFail(OmScalar<int>(-5)); },
     "The tool (sar/iostat/vmstat) being used to measure load did not return any data on -5 "
     "successive iterations.\n"
     "The most likely cause is incorrect configuration of the tool or its arguments.\n"
     "Correct the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {12, "quelmloadprobe/child/info", [] { LogWrongChild(OmScalar<int>(-5), OmScalar<int>(42)); },
     "There has been a signal for child process with pid -5 which is not the current child "
     "process(42) of the quelm loadtool.\n"
     "No action is necessary."},
    {13, "quelmloadprobe/child/error", [] { LogPipeFail(OmScalar<int>(-5), OmScalar<int>(42)); },
     "Failure reading -5 bytes from loadtool (sar/iostat/vmstat); errno is 42.\n"
     "Quelm loadprobe cannot return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {14, "quelmloadprobe/child/info", [] { LogReadPipeLimitFail(OmScalar<int>(-5)); },
     "The pipe being used to read data from the loadtool (sar/iostat/vmstat) did not return any "
     "data on -5 successive reads.\n"
     "No action is necessary."},
    {15, "quelmloadprobe/child/fatalerror", [] { LogFilterNotRecognised(OmUniString("alpha")); },
     "The filter named alpha was not recognised. This filter may not be implemented on this "
     "platform. \n"
     "Quelm loadprobe cannot return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {16, "quelmloadprobe/child/error",
     [] { LogDataNotRecognised(OmUniString("alpha"), OmUniString("beta")); },
     "The data returned by alpha has not been recognised by the data filter. \n"
     "The data was \n"
     "beta\n"
     "The quelm loadprobe has not cached any load values as a result in this cycle.\n"
     "No action is necessary unless the problem occurs continuously, in which case check the "
     "configuration in the quelmloadprobe.properties file and restart the quelm loadprobe."},
    {17, "quelmloadprobe/child/error",
     [] { LogVMemOutOfRange(OmScalar<int>(-5), OmScalar<int>(42)); },
     "The used/free virtual memory measured (-5 Kb) exceeds the amount configured in "
     "quelmloadprobe.properties (42 Kb).\n"
     "Resulting virtual memory usage measurements will be inaccurate.\n"
     "Correct the maxvirtualmemory value in quelmloadprobe.properties and restart the quelm "
     "loadprobe."},
    {18, "quelmloadprobe/child/error",
     [] { LogPhysMemOutOfRange(OmScalar<int>(-5), OmScalar<int>(42)); },
     "The used/free real memory measured (-5 Kb) exceeds the amount configured in "
     "quelmloadprobe.properties (42 Kb).\n"
     "Resulting real memory usage measurements will be inaccurate.\n"
     "Correct the maxrealmemory value in quelmloadprobe.properties and restart the quelm "
     "loadprobe."},
    {19, "quelmloadprobe/log/error", [] { LogReOpenLogFail(OmUniString("alpha")); },
     "Failed to reopen log files. No logs will be recorded.\n"
     " Check the log directory alpha exists.\n"
     "To ensure correct log information, restart the Quelm loadprobe."},
    {20, "quelmloadprobe/attribute/error", [] { LogAttributeLookupFail(OmUniString("alpha")); },
     "Failed to any attributes in alpha.\n"
     "The quelm loadprobe may not return data.\n"
     "Check the configuration in the quelmloadprobe.properties file and restart the quelm "
     "loadprobe."},
    {21, "quelmloadprobe/host/error",
     [] { LogAddressLookupFail(OmUniString("alpha"), OmScalar<unsigned int>(65535u)); },
     "Failed to read the address for alpha from DNS; result was 65535.\n"
     "The quelm loadprobe will not be able to send load updates to this host.\n"
     "Check the hostname and that it is configured correctly in DNS.\n"},
    {22, "quelmloadprobe/host/info",
     [] { LogHostTimedOut(OmUniString("alpha"), OmScalar<unsigned int>(65535u)); },
     "The host object for alpha with ID 65535 has time-expired and has been deleted.\n"
     "No action is necessary."},
    {23, "quelmloadprobe/host/moreinfo",
     [] { LogHostListLen(OmUniString("alpha"), OmScalar<unsigned int>(65535u)); },
     "alpha: There are 65535 host objects in the Host List."},
    {24, "quelmloadprobe/host/error", [] { LogCacheEmpty(OmUniString("alpha")); },
     "Unable to send load/memory values to alpha. There are no values in the cache to average.\n"
     "Quelm loadbalancing may not work.\n"
     "If this problem persists, check and correct the configuration in the "
     "quelmloadprobe.properties file and restart the quelm loadprobe."},
    {25, "quelmloadprobe/listener/error", [] { LogAcceptFail(OmUniString("alpha")); },
     "Failed to accept new connection [Reason: alpha].\n"
     "An unknown host will not be able to receive load updates.\n"
     "Check for failures on your network."},
    {26, "quelmloadprobe/listener/error", [] { LogRemoteAddressFail(); },
     "Failed to get remote address for new connection.\n"
     "An unknown host will not be able to receive load updates.\n"
     "Check for failures on your network."},
    {27, "quelmloadprobe/listener/info", [] { LogNewConnection(OmUniString("alpha")); },
     "Received new connection from alpha."},
    {28, "quelmloadprobe/listener/fatalerror",
     [] { LogBindFailed(OmScalar<unsigned int>(4000000000u), OmUniString("beta")); },
     "Failed to bind to port 4000000000, reason beta.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check that this port is available OR configure the quelmloadprobe to use a different port."},
    {29, "quelmloadprobe/listener/fatalerror",
     [] { LogListenFailed(OmScalar<unsigned int>(4000000000u), OmUniString("beta")); },
     "Failed to listen on port 4000000000, reason beta.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check that this port is available OR configure the quelmloadprobe to use a different port."},
    {30, "quelmloadprobe/listener/error",
     [] { LogBadCommand(OmScalar<unsigned int>(4000000000u), OmUniString("beta")); },
     "Bad request (length 4000000000). Request is [ beta ].\n"
     "The quelm loadprobe cannot act on this request.\n"
     "Check the source of this request to determine its validity."},
    {31, "quelmloadprobe/responder/fatalerror",
     [] { LogResponderBindFailed(OmUniString("alpha")); },
     "Failed to bind for connectionless port reason alpha.\n"
     "The quelm loadprobe will not be able to function.\n"
     "Check the availability of suitable ports."},
    {32, "quelmloadprobe/responder/moreinfo",
     [] { LogLoadPacketSent(OmUniString("alpha"), OmUniString("beta")); },
     "alpha\n"
     "sent to beta"},
    {33, "quelmloadprobe/responder/info",
     [] { LogLoadSent(OmScalar<unsigned int>(4000000000u), OmUniString("beta")); },
     "Idle value 4000000000 sent to beta "},
    {34, "quelmloadprobe/responder/error",
     [] {
       LogLoadPacketFail(OmUniString("alpha"), OmUniString("beta"), OmUniString("gamma"),
                         OmScalar<unsigned int>(13u));
     },
     "Failed to send packet\n"
     "alpha\n"
     "to address beta. Error was gamma, errno was 13.\n"
     "The loadprobe will continue sending load packets to this and other addresses.\n"
     "Check for other evidence of network faults."},
    {35, "quelmloadprobe/command/error", [] { LogCommandMissing(); },
     "Failed to find valid command.\n"
     "The loadprobe may not work successfully.\n"
     "Correct the loadprobe configuration and restart it."},
    {36, "quelmloadprobe/command/error",
     [] { LogSyntaxError(OmUniString("alpha"), OmScalar<int>(42), OmUniString("gamma")); },
     "Syntax error in command parameter list\n"
     "alpha\n"
     " at character position 42 because of [gamma].\n"
     "The loadprobe may not work successfully.\n"
     "Correct the source of the command and resend it."},
    {37, "quelmloadprobe/command/info", [] { LogCommandText(OmUniString("alpha")); },
     "Command is \n"
     "alpha"},
    {38, "quelmloadprobe/command/info", [] { LogResponseText(OmUniString("alpha")); },
     "Response is \n"
     "alpha"},
    {39, "quelmloadprobe/set_attribute/error",
     [] { LogAttribSetFail(OmUniString("alpha"), OmUniString("beta")); },
     "Failed to register attribute setting (alpha = beta).\n"
     "The loadprobe may not work properly.\n"
     "Restart the loadprobe to see if the problem persists."},
    {40, "quelmloadprobe/set_attribute/moreinfo",
     [] { LogAttribSetSuccess(OmUniString("alpha"), OmUniString("beta")); },
     "Successfully set alpha = beta"},
    {41, "quelmloadprobe/get_attribute/error", [] { LogAttribGetFail(OmUniString("alpha")); },
     "Failed to get attribute alpha\n"
     ".The loadprobe may not work successfully.\n"
     "Correct the loadprobe configuration and restart it."},
    {42, "quelmloadprobe/results/moreinfo",
     [] {
       LogResultsCached(OmScalar<int>(-5), OmScalar<int>(42), OmScalar<int>(7), OmScalar<int>(3),
                        OmScalar<int>(9));
     },
     "The following results have just been cached: idle=-5, swap=42, \n"
     "physmemfree=7, swappedin=3, swappedout=9."},
    {43, "quelmloadprobe/results/info",
     [] { LogSpeedRecalculated(OmScalar<int>(97), OmScalar<int>(1400), OmScalar<int>(1420)); },
     "The processor speed estimate was recalculated after a tool run ending at idle 97: "
     "estimate 1400, reported 1420."},
};

constexpr unsigned kCount = sizeof kCases / sizeof kCases[0];

struct Logged {
  std::string category;
  std::string message;
};

std::string Unescape(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '%' && i + 2 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += s[i];
    }
  }
  return out;
}

// Category and message of each line of a structured log file.
std::vector<Logged> ReadStructured(const std::string& path) {
  std::vector<Logged> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    Logged l;
    size_t comma = line.find(',');
    size_t msg = line.find(",message=");
    if (line.rfind("category=", 0) != 0 || comma == std::string::npos || msg == std::string::npos) {
      ADD_FAILURE() << "malformed line: " << line;
      continue;
    }
    l.category = line.substr(9, comma - 9);
    l.message = Unescape(line.substr(msg + 9));
    out.push_back(l);
  }
  return out;
}

// Gives every message number a category of its own, to check which number
// each function logs under.
class NumberedLogger : public OmLog {
 public:
  NumberedLogger() {
    for (unsigned n = 0; n < kCount; ++n)
      names_.push_back("quelmloadprobe/n" + std::to_string(n) + "/info");
    for (const auto& s : names_) table_.push_back(s.c_str());
    table_.push_back("");
    table_.push_back(nullptr);
  }
  const char* const* MessageStrings() const override { return table_.data(); }

 private:
  std::vector<std::string> names_;
  std::vector<const char*> table_;
};

class MessagesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_logger_ = OmLog::Current();
    saved_dir_ = OmLog::LogDirectory();
    char tmpl[] = "/tmp/messages_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    logger_.HaveForked();
    logger_.SetupCSFilters({});
    OmLog::InitLogs(saved_logger_, saved_dir_);
    std::filesystem::remove_all(dir_);
  }

  // Logs every case through logger into one structured file and reads it back.
  std::vector<Logged> LogAll(OmLog& logger) {
    OmLog::InitLogs(&logger, OmUniString(dir_));
    EXPECT_TRUE(logger.SetupCSFilters({OmUniString("*/*/*:all.csl")}));
    for (const Case& c : kCases) c.call();
    logger.HaveForked();
    return ReadStructured(dir_ + "/all.csl");
  }

  MyLogger logger_;
  NumberedLogger numbered_;
  OmLog* saved_logger_ = nullptr;
  OmUniString saved_dir_;
  std::string dir_;
};

TEST_F(MessagesTest, TableCoversTheCatalogue) {
  ASSERT_EQ(kCount, kMessageCount);
  EXPECT_EQ(logger_.NumLogs(), kMessageCount);
  for (unsigned n = 0; n < kCount; ++n) {
    EXPECT_EQ(kCases[n].number, n);
    EXPECT_STREQ(logger_.MessageStrings()[n], kCases[n].category) << "message " << n;
  }
}

TEST_F(MessagesTest, EveryMessageHasItsCategoryAndText) {
  std::vector<Logged> logged = LogAll(logger_);
  ASSERT_EQ(logged.size(), kCount);
  for (unsigned n = 0; n < kCount; ++n) {
    EXPECT_EQ(logged[n].category, kCases[n].category) << "message " << n;
    EXPECT_EQ(logged[n].message, kCases[n].text) << "message " << n;
  }
}

TEST_F(MessagesTest, EveryFunctionLogsUnderItsNumber) {
  std::vector<Logged> logged = LogAll(numbered_);
  ASSERT_EQ(logged.size(), kCount);
  for (unsigned n = 0; n < kCount; ++n) {
    EXPECT_EQ(logged[n].category, "quelmloadprobe/n" + std::to_string(n) + "/info");
  }
}

TEST_F(MessagesTest, NothingIsBuiltWithoutALogger) {
  OmLog::InitLogs(nullptr, OmUniString(dir_));
  unsigned long before = OmLog::MessageCount();
  LogStarted();
  EXPECT_EQ(OmLog::MessageCount(), before);
}

}  // namespace
