// Configuration: defaults, checks and the messages that name them.
#include "agent/Bootstrap.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "agent/Globals.h"
#include "agent/Logging.h"

namespace fs = std::filesystem;

namespace {

std::string ReadAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class BootstrapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/quelm-boot-XXXXXX";
    dir_ = mkdtemp(tmpl);
    logName_ = "/quelmloadprobe" + std::to_string(getpid()) + "_error.log";
  }
  void TearDown() override {
    Reset();
    fs::remove_all(dir_);
    // Logs that fell back to the default directory.
    fs::remove("/tmp" + logName_);
    fs::remove("/tmp/quelmloadprobe" + std::to_string(getpid()) + "_error.csl");
  }
  void Reset() {
    delete bootLogger;
    bootLogger = nullptr;
  }

  // Writes the properties file ("key=value" lines without the prefix); logs
  // go to the test folder unless a line names the log directory.
  void Write(const std::string& lines) {
    std::ofstream out(dir_ + "/quelmloadbalancing.properties");
    std::istringstream in(lines.find("logdirectory") == std::string::npos
                              ? "logdirectory=" + dir_ + "\n" + lines
                              : lines);
    for (std::string line; std::getline(in, line);) {
      out << "varosa.config.quelmloadbalancing." << line << "\n";
    }
  }
  std::string Log(const std::string& dir = "") { return ReadAll((dir.empty() ? dir_ : dir) + logName_); }

  std::string dir_;
  std::string logName_;
};

TEST_F(BootstrapTest, MissingFileGivesAllDefaultsAndOneMessage) {
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  const Settings& s = b.settings();
  EXPECT_EQ(s.port, 3579u);
  EXPECT_EQ(s.filter, "vmstatFilter");
  EXPECT_EQ(s.probePath, "/usr/bin/vmstat -n");
  EXPECT_EQ(s.logDirectory, "/tmp");
  EXPECT_EQ(s.pidDirectory, "/tmp");
  EXPECT_EQ(s.windowSize, 120u);
  EXPECT_EQ(s.sampleRate, 30u);
  EXPECT_EQ(s.hostLifeTime, 86400u);
  EXPECT_EQ(s.minCacheSize, 10u);
  EXPECT_EQ(s.maxVirtualMemory, 786432u);
  EXPECT_EQ(s.maxPhysMemory, 262144u);
  EXPECT_EQ(s.multiProcessorFactor, 80u);
  EXPECT_EQ(s.logFilter, Bootstrap::DEFAULT_LOGFILTER);
  ASSERT_NE(bootLogger, nullptr);

  const std::string log = Log("/tmp");
  const std::string path = dir_ + "/quelmloadbalancing.properties";
  EXPECT_EQ(log.find("quelmloadprobe/initialize/error"), log.rfind("quelmloadprobe/initialize"));
  EXPECT_NE(log.find("The properties file " + path + " was not found."), std::string::npos);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BootstrapTest, EmptyDirectoryGivesDefaultsWithoutLogging) {
  Bootstrap b(OmUniString(""), 1);
  EXPECT_EQ(b.settings().port, 3579u);
  EXPECT_EQ(bootLogger, nullptr);
}

TEST_F(BootstrapTest, BadAndMissingValuesFallBackWithMessages) {
  Write("port=abc\nmincachesize=0\nlogdirectory=/nonexistent\n"
        "probepath=/nonexistent/iostat -x 5\npiddirectory=/nonexistent\n");
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.settings().port, 3579u);
  EXPECT_EQ(b.settings().minCacheSize, 10u);
  EXPECT_EQ(b.settings().logDirectory, "/tmp");
  EXPECT_EQ(b.settings().probePath, "/usr/bin/vmstat -n");
  EXPECT_EQ(b.settings().pidDirectory, "/nonexistent");  // kept on purpose
  const std::string log = Log("/tmp");
  for (const char* text : {
           "The attribute varosa.config.quelmloadbalancing.port has the value 0 which is invalid. "
           "The built-in default value 3579 will be used instead.",
           "The attribute varosa.config.quelmloadbalancing.hostlifetime does not exist in the "
           "quelmloadprobe.properties file. The built-in default value 86400 will be used.",
           "The path /nonexistent does not exist or is not a directory. Using the built-in "
           "default /tmp for the attribute varosa.config.quelmloadbalancing.logdirectory.",
           "The path or object /nonexistent/iostat does not exist. Using the built-in default "
           "/usr/bin/vmstat -n for the\nattribute varosa.config.quelmloadbalancing.probepath.",
           "The path /nonexistent does not exist or is not a directory. Using the built-in "
           "default /tmp for the attribute varosa.config.quelmloadbalancing.piddirectory."}) {
    EXPECT_NE(log.find(text), std::string::npos) << text;
  }
}

TEST_F(BootstrapTest, SampleRateRule) {
  struct Case {
    uint32_t rate, window, wantRate, wantWindow;
  } inFile[] = {{2, 4, 5, 4}, {5, 2, 5, 3}, {7, 0, 7, 120}, {30, 120, 30, 120}},
    direct[] = {{0, 0, 5, 3}, {2, 0, 5, 3}, {7, 0, 5, 3}, {20, 0, 20, 1}, {4, 10, 5, 10}};
  for (const Case& c : inFile) {
    Write("samplerate=" + std::to_string(c.rate) + "\nwindowsize=" + std::to_string(c.window));
    Bootstrap b(OmUniString(dir_.c_str()), 1);
    EXPECT_EQ(b.settings().sampleRate, c.wantRate) << c.rate << "/" << c.window;
    EXPECT_EQ(b.settings().windowSize, c.wantWindow) << c.rate << "/" << c.window;
    Reset();
  }
  // The zero-window branches are reached only by setters and subscribers.
  for (const Case& c : direct) {
    uint32_t rate = c.rate, window = c.window;
    Bootstrap::checkSampleRateAndWindowSize(rate, window);
    EXPECT_EQ(rate, c.wantRate) << c.rate << "/" << c.window;
    EXPECT_EQ(window, c.wantWindow) << c.rate << "/" << c.window;
  }
}

TEST_F(BootstrapTest, SetConfigWritesEveryKeyBackInMegabytes) {
  Write("port=4000\nfilter=vmstatFilter\nmaxvirtualmemory=1024\nmaxphysicalmemory=3");
  {
    Bootstrap b(OmUniString(dir_.c_str()), 1);
    EXPECT_EQ(b.settings().maxVirtualMemory, 1048576u);
    EXPECT_EQ(b.settings().maxPhysMemory, 3072u);
    EXPECT_TRUE(b.setPort(4100));
    EXPECT_TRUE(b.setSampleRateAndWindowSize(2, 4));
    EXPECT_TRUE(b.setConfig());
  }
  Reset();
  const std::string text = ReadAll(dir_ + "/quelmloadbalancing.properties");
  EXPECT_EQ(text.rfind("# written by props\n# Written by quelmloadprobe\n\n# Written at: ", 0), 0u);
  Bootstrap again(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(again.settings().port, 4100u);
  EXPECT_EQ(again.settings().sampleRate, 5u);
  EXPECT_EQ(again.settings().windowSize, 4u);
  EXPECT_EQ(again.settings().maxVirtualMemory, 1048576u);
  EXPECT_EQ(again.settings().logDirectory, OmUniString(dir_.c_str()));
  EXPECT_EQ(again.settings().hostLifeTime, 86400u);
}

}  // namespace
