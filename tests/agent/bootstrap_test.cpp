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

const std::string kPrefix = "varosa.config.quelmloadbalancing.";

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

class BootstrapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/quelm-boot-XXXXXX";
    dir_ = mkdtemp(tmpl);
    logName_ = "/quelmloadprobe" + std::to_string(getpid()) + "_error.log";
  }
  void TearDown() override {
    delete bootLogger;
    bootLogger = nullptr;
    fs::remove_all(dir_);
    // Logs that fell back to the default directory.
    fs::remove("/tmp" + logName_);
    fs::remove("/tmp/quelmloadprobe" + std::to_string(getpid()) + "_error.csl");
  }

  // Writes the properties file; logs go to the test folder unless overridden.
  void Write(const std::string& lines, bool withLogDir = true) {
    std::ofstream out(dir_ + "/quelmloadbalancing.properties");
    if (withLogDir) out << kPrefix << "logdirectory=" << dir_ << "\n";
    out << lines;
  }
  std::string Line(const std::string& key, const std::string& value) {
    return kPrefix + key + "=" + value + "\n";
  }
  std::string Log() { return ReadAll(dir_ + logName_); }

  std::string dir_;
  std::string logName_;
};

TEST_F(BootstrapTest, MissingFileGivesAllDefaultsAndOneMessage) {
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.getPort(), 3579u);
  EXPECT_EQ(b.getFilter(), "vmstatFilter");
  EXPECT_EQ(b.getProbePath(), "/usr/bin/vmstat -n");
  EXPECT_EQ(b.getLogDirectory(), "/tmp");
  EXPECT_EQ(b.getPidDirectory(), "/tmp");
  EXPECT_EQ(b.getWindowSize(), 120u);
  EXPECT_EQ(b.getSampleRate(), 30u);
  EXPECT_EQ(b.getHostLifeTime(), 86400u);
  EXPECT_EQ(b.getMinCacheSize(), 10u);
  EXPECT_EQ(b.getMaxVirtualMemory(), 786432u);
  EXPECT_EQ(b.getMaxPhysMemory(), 262144u);
  EXPECT_EQ(b.getMultiProcessorFactor(), 80u);
  EXPECT_EQ(b.getLogFilter(), Bootstrap::DEFAULT_LOGFILTER);
  ASSERT_NE(bootLogger, nullptr);

  const std::string log = ReadAll("/tmp" + logName_);
  const std::string path = dir_ + "/quelmloadbalancing.properties";
  EXPECT_EQ(Count(log, "quelmloadprobe/initialize/error"), 1u);
  EXPECT_NE(log.find("The properties file " + path +
                     " was not found. The quelm loadprobe has been initialized\nusing built-in "
                     "defaults.\nThe most likely cause is incorrect configuration or "
                     "installation.\nCreate the " + path + " file or reinstall the Varosakit."),
            std::string::npos);
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(BootstrapTest, EmptyDirectoryGivesDefaultsWithoutLogging) {
  Bootstrap b(OmUniString(""), 1);
  EXPECT_EQ(b.getPort(), 3579u);
  EXPECT_EQ(b.getSampleRate(), 30u);
  EXPECT_EQ(b.getProbePath(), "/usr/bin/vmstat -n");
  EXPECT_EQ(bootLogger, nullptr);
}

TEST_F(BootstrapTest, BadAndMissingNumbersFallBackWithMessages) {
  Write(Line("port", "abc") + Line("mincachesize", "0"));
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.getPort(), 3579u);
  EXPECT_EQ(b.getMinCacheSize(), 10u);
  const std::string log = Log();
  EXPECT_NE(log.find("The attribute varosa.config.quelmloadbalancing.port has the value 0 which "
                     "is invalid. The built-in default value 3579 will be used instead."),
            std::string::npos);
  EXPECT_NE(log.find("The attribute varosa.config.quelmloadbalancing.mincachesize has the value "
                     "0 which is invalid."),
            std::string::npos);
  EXPECT_NE(log.find("The attribute varosa.config.quelmloadbalancing.hostlifetime does not exist "
                     "in the quelmloadprobe.properties file. The built-in default value 86400 "
                     "will be used."),
            std::string::npos);
}

TEST_F(BootstrapTest, SampleRateRuleInTheFile) {
  struct Case {
    const char* rate;
    const char* window;
    uint32_t wantRate, wantWindow;
  } cases[] = {{"2", "4", 5, 4}, {"5", "2", 5, 3}, {"7", "0", 7, 120}, {"30", "120", 30, 120}};
  for (const Case& c : cases) {
    Write(Line("samplerate", c.rate) + Line("windowsize", c.window));
    Bootstrap b(OmUniString(dir_.c_str()), 1);
    EXPECT_EQ(b.getSampleRate(), c.wantRate) << c.rate << "/" << c.window;
    EXPECT_EQ(b.getWindowSize(), c.wantWindow) << c.rate << "/" << c.window;
    delete bootLogger;
    bootLogger = nullptr;
  }
}

TEST_F(BootstrapTest, SampleRateRuleZeroWindowBranches) {
  struct Case {
    uint32_t rate, window, wantRate, wantWindow;
  } cases[] = {{0, 0, 5, 3}, {2, 0, 5, 3}, {7, 0, 5, 3}, {20, 0, 20, 1}, {4, 10, 5, 10}};
  for (const Case& c : cases) {
    uint32_t rate = c.rate, window = c.window;
    Bootstrap::checkSampleRateAndWindowSize(rate, window);
    EXPECT_EQ(rate, c.wantRate) << c.rate << "/" << c.window;
    EXPECT_EQ(window, c.wantWindow) << c.rate << "/" << c.window;
  }
}

TEST_F(BootstrapTest, MemoryIsShiftedToKilobytes) {
  Write(Line("maxvirtualmemory", "1024") + Line("maxphysicalmemory", "3"));
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.getMaxVirtualMemory(), 1048576u);
  EXPECT_EQ(b.getMaxPhysMemory(), 3072u);
}

TEST_F(BootstrapTest, LogDirectoryThatIsNoDirectoryFallsBackToTmp) {
  Write(Line("logdirectory", "/nonexistent"), false);
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.getLogDirectory(), "/tmp");
  const std::string log = ReadAll("/tmp" + logName_);
  EXPECT_NE(log.find("The path /nonexistent does not exist or is not a directory. Using the "
                     "built-in default /tmp for the attribute "
                     "varosa.config.quelmloadbalancing.logdirectory."),
            std::string::npos);
}

TEST_F(BootstrapTest, ProbePathNamesTheMissingProgramAlone) {
  Write(Line("probepath", "/nonexistent/iostat -x 5") + Line("piddirectory", "/nonexistent"));
  Bootstrap b(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(b.getProbePath(), "/usr/bin/vmstat -n");
  EXPECT_EQ(b.getPidDirectory(), "/nonexistent");  // kept on purpose
  const std::string log = Log();
  EXPECT_NE(log.find("The path or object /nonexistent/iostat does not exist. Using the built-in "
                     "default /usr/bin/vmstat -n for the\nattribute "
                     "varosa.config.quelmloadbalancing.probepath."),
            std::string::npos);
  EXPECT_NE(log.find("The path /nonexistent does not exist or is not a directory. Using the "
                     "built-in default /tmp for the attribute "
                     "varosa.config.quelmloadbalancing.piddirectory."),
            std::string::npos);
}

TEST_F(BootstrapTest, SetConfigWritesEveryKeyBack) {
  Write(Line("port", "4000") + Line("filter", "vmstatFilter") + Line("maxvirtualmemory", "10"));
  {
    Bootstrap b(OmUniString(dir_.c_str()), 1);
    EXPECT_TRUE(b.setPort(4100));
    EXPECT_TRUE(b.setSampleRateAndWindowSize(2, 4));
    EXPECT_TRUE(b.setConfig());
    EXPECT_EQ(b.getFilter(), "vmstatFilter");
  }
  delete bootLogger;
  bootLogger = nullptr;
  const std::string text = ReadAll(dir_ + "/quelmloadbalancing.properties");
  EXPECT_EQ(text.rfind("# written by props\n# Written by quelmloadprobe\n\n# Written at: ", 0), 0u);
  Bootstrap again(OmUniString(dir_.c_str()), 1);
  EXPECT_EQ(again.getPort(), 4100u);
  EXPECT_EQ(again.getSampleRate(), 5u);
  EXPECT_EQ(again.getWindowSize(), 4u);
  EXPECT_EQ(again.getMaxVirtualMemory(), 10240u);
  EXPECT_EQ(again.getLogDirectory(), OmUniString(dir_.c_str()));
  EXPECT_EQ(again.getHostLifeTime(), 86400u);
}

}  // namespace
