// Configuration: defaults, checks and the messages that name them.
#include "agent/Bootstrap.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include <gtest/gtest.h>

#include "FakeEnv.h"
#include "agent/Globals.h"
#include "agent/Logging.h"

namespace {

class BootstrapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir = TempDir();
  }
  void TearDown() override {
    delete std::exchange(bootLogger, nullptr);
    std::filesystem::remove_all(dir);
    // Every test's log falls back to the default directory.
    for (const char* ext : {"log", "csl"}) std::filesystem::remove(logBase + ext);
  }

  // Writes the properties file from "key=value" lines without the prefix.
  void Write(const std::string& lines) {
    std::ofstream out(dir + "/quelmloadbalancing.properties");
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);)
      out << "varosa.config.quelmloadbalancing." << line << "\n";
  }
  std::string Log(const std::string& folder = "/tmp", const std::string& name = "") const {
    return ReadText(folder + (name.empty() ? logBase.substr(4) + "log" : name));
  }

  std::string dir;
  const std::string logBase = "/tmp/quelmloadprobe" + std::to_string(getpid()) + "_error.";
};

TEST_F(BootstrapTest, MissingFileGivesAllDefaultsAndOneMessage) {
  Bootstrap b(OmUniString(dir.c_str()), 1);
  const Settings& s = b.settings();
  std::ostringstream all;
  for (const OmUniString* text : {&s.filter, &s.probePath, &s.logDirectory, &s.pidDirectory})
    all << text->AsUtf8() << ",";
  for (uint32_t n : {s.port, s.windowSize, s.sampleRate, s.hostLifeTime, s.minCacheSize,
                     s.maxVirtualMemory, s.maxPhysMemory, s.multiProcessorFactor})
    all << n << ",";
  EXPECT_EQ(all.str(), "vmstatFilter,/usr/bin/vmstat -n,/tmp,/tmp,3579,120,30,86400,10,786432,"
                       "262144,80,");
  EXPECT_EQ(s.logFilter, Bootstrap::DEFAULT_LOGFILTER);

  const std::string log = Log(), path = dir + "/quelmloadbalancing.properties";
  EXPECT_EQ(log.find("quelmloadprobe/initialize/error"), log.rfind("quelmloadprobe/initialize"));
  EXPECT_NE(log.find("The properties file " + path + " was not found."), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(path));
}

// A FIFO, /dev/zero or more than 1 MiB is not read: defaults.
TEST_F(BootstrapTest, UnreadablePropertiesFilesGiveDefaults) {
  const std::string path = dir + "/quelmloadbalancing.properties";
  for (int kind = 0; kind < 3; ++kind) {  // a FIFO, /dev/zero, 1 MiB and more
    std::filesystem::remove(path);
    kind == 0 ? (void)mkfifo(path.c_str(), 0600) : kind == 1 ? std::filesystem::create_symlink("/dev/zero", path)
                                                             : Write("port=4444\n#" + std::string(1 << 20, 'x'));
    Bootstrap b(OmUniString(dir.c_str()), 1);
    EXPECT_EQ(b.settings().port, 3579u);
    EXPECT_NE(Log().find("The properties file " + path + " was not found."), std::string::npos);
    delete std::exchange(bootLogger, nullptr);
    std::filesystem::remove(logBase + "log");
  }
}

TEST_F(BootstrapTest, EmptyDirectoryGivesDefaultsWithoutLogging) {
  Bootstrap b(OmUniString(""), 1);
  EXPECT_EQ(b.settings().port, 3579u);
  EXPECT_EQ(bootLogger, nullptr);
}

TEST_F(BootstrapTest, BadAndMissingValuesFallBackWithMessages) {
  Write("port=abc\nmincachesize=0\nlogdirectory=/nonexistent\n"
        "probepath=/nonexistent/iostat -x 5\npiddirectory=/nonexistent\n"
        "toolprocessgroup=2\nspeedrecalcinterval=600\n");
  Bootstrap b(OmUniString(dir.c_str()), 1);
  const Settings& s = b.settings();
  EXPECT_EQ(s.port, 3579u);
  EXPECT_EQ(s.minCacheSize, 10u);
  EXPECT_EQ(s.logDirectory, "/tmp");
  EXPECT_EQ(s.probePath, "/usr/bin/vmstat -n");
  EXPECT_EQ(s.pidDirectory, "/nonexistent");  // kept on purpose
  EXPECT_EQ(s.speedRecalcInterval, 600u);
  const std::string log = Log();
  // Optional keys: a bad value is named, a missing one is not.
  EXPECT_EQ(log.find("toolbufferlimit"), std::string::npos);
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
           "default /tmp for the attribute varosa.config.quelmloadbalancing.piddirectory.",
           "The attribute varosa.config.quelmloadbalancing.toolprocessgroup has the value 2 "
           "which is invalid. The built-in default value 0 will be used instead."}) {
    EXPECT_NE(log.find(text), std::string::npos) << text;
  }
}

// The file's own character set (bad lines named once), written back; an unknown user.
TEST_F(BootstrapTest, PropertiesEncodingAndUser) {
  const std::string logs = dir + "/journaux-\xC3\xA9";
  std::filesystem::create_directory(logs);
  const struct { std::string lines, logDir, message; unsigned port = 4000; } cases[] = {
      {"propertiesencoding=UTF-8\nlogdirectory=" + logs + "\nport=4000", logs, "windowsize does"},
      {"propertiesencoding=cp1252\nlogdirectory=" + dir + "/journaux-\xE9\nport=4000", logs, "samplerate does"},
      {"propertiesencoding=utf8\nport=4000\xFF\nlogdirectory=" + logs + "\nport=4\xC3", logs,
       "Line 2 of the properties file " + dir + "/quelmloadbalancing.properties is not valid UTF-8 "
       "text. That line, and any further line that is not valid UTF-8, has been ignored", 3579},
      {"propertiesencoding=UTF-16\nport=4000", "/tmp", "propertiesencoding has the value UTF-16 "
       "which is invalid. The built-in default value US-ASCII will be used instead."},
      {"user=quelm-none\nport=4000", "/tmp", "The quelm loadprobe cannot run as the user quelm-none: "
       "there is no user quelm-none. It keeps running as the user that started it."},
  };
  for (const auto& c : cases) {
    Write(c.lines);
    for (int pass = 0; pass < 2; ++pass) {  // as written, then as written back
      Bootstrap b(OmUniString(dir.c_str()), 1);
      EXPECT_EQ(b.settings().logDirectory, OmUniString::FromUtf8(c.logDir)) << c.lines;
      EXPECT_EQ(b.settings().port, c.port) << c.lines;
      EXPECT_TRUE(pass == 1 || b.setConfig());
      delete std::exchange(bootLogger, nullptr);
      const std::string log = Log(c.logDir), m = c.message;  // once, on the first load
      EXPECT_TRUE(pass == 1 || (log.find(m) != std::string::npos && log.find(m) == log.rfind(m))) << log;
      std::filesystem::remove(c.logDir + logBase.substr(4) + "log");
    }
    EXPECT_EQ(Log(dir, "/quelmloadbalancing.properties").find("\\u00e9"), std::string::npos);
  }
}

TEST_F(BootstrapTest, StrictPortAndAnAllowListRejectTheirBadValues) {
  Write("port=70000\nstrictport=1\nclientallow=10.0.0.0/8,10.1\nsubscriberallow=::1,2001:db8::/129\n"
        "listenaddress=[::1]\nipv6=2\nmetricsaddress=::1\n");
  const Bootstrap b(OmUniString(dir.c_str()), 1);
  const Settings& s = b.settings();
  EXPECT_TRUE(s.port == 3579u && s.listenAddress.IsEmpty() && s.ipv6 == 0u);
  EXPECT_EQ(s.metricsAddress, OmUniString("::1"));  // an IPv6 address is good
  for (const char* text : {"port has the value 70000 which is invalid. The built-in default value 3579",
                           "clientallow has the value 10.0.0.0/8,10.1 which is invalid. The built-in default value  will",
                           "subscriberallow has the value ::1,2001:db8::/129 which is invalid",
                           "listenaddress has the value [::1] which is invalid. The built-in default value  will",
                           "ipv6 has the value 2 which is invalid. The built-in default value 0"}) {
    EXPECT_NE(Log().find(text), std::string::npos) << text;
  }
}

// From the file, then as subscribers apply it (the zero-window branches).
TEST_F(BootstrapTest, SampleRateRule) {
  const struct {
    bool inFile;
    uint32_t rate, window, wantRate, wantWindow;
  } cases[] = {{true, 2, 4, 5, 4},  {true, 5, 2, 5, 3},  {true, 7, 0, 7, 120},
               {true, 30, 120, 30, 120}, {false, 0, 0, 5, 3}, {false, 2, 0, 5, 3},
               {false, 7, 0, 5, 3}, {false, 20, 0, 20, 1}, {false, 4, 10, 5, 10}};
  for (const auto& c : cases) {
    uint32_t rate = c.rate, window = c.window;
    if (c.inFile) {
      Write("samplerate=" + std::to_string(c.rate) + "\nwindowsize=" + std::to_string(c.window));
      Bootstrap b(OmUniString(dir.c_str()), 1);
      rate = b.settings().sampleRate, window = b.settings().windowSize;
      delete std::exchange(bootLogger, nullptr);
    } else {
      Bootstrap::checkSampleRateAndWindowSize(rate, window);
    }
    EXPECT_EQ(rate, c.wantRate) << c.inFile << " " << c.rate << "/" << c.window;
    EXPECT_EQ(window, c.wantWindow) << c.inFile << " " << c.rate << "/" << c.window;
  }
}

}  // namespace
