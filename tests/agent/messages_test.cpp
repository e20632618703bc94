#include "agent/Messages.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "agent/MyLogger.h"
#include "foundation/log/OmLog.h"

namespace {

TEST(MessageCatalogueTest, NumberedInOrderWithWellFormedCategories) {
  const std::set<std::string> severities = {"fatalerror", "error", "info", "moreinfo"};
  const char* const* categories = MyLogger().MessageStrings();
  for (unsigned n = 0; n < kMessageCount; ++n) {
    const MessageEntry& m = kMessageCatalogue[n];
    EXPECT_EQ(m.number, n);
    EXPECT_STREQ(categories[n], m.category);
    const std::string category = m.category;
    const size_t area = category.find('/', 15);
    ASSERT_EQ(category.rfind("quelmloadprobe/", 0), 0u) << n;
    ASSERT_NE(area, std::string::npos) << n;
    EXPECT_EQ(severities.count(category.substr(area + 1)), 1u) << n;
  }
  EXPECT_STREQ(categories[kMessageCount], "");
  EXPECT_EQ(categories[kMessageCount + 2], nullptr);
}

// Category and message of each line of a structured log file, escapes undone.
std::vector<std::pair<std::string, std::string>> ReadStructured(const std::string& path) {
  std::vector<std::pair<std::string, std::string>> out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const size_t comma = line.find(','), msg = line.find(",message=");
    if (line.rfind("category=", 0) != 0 || msg == std::string::npos) {
      ADD_FAILURE() << "malformed line: " << line;
      continue;
    }
    std::string text;
    for (size_t i = msg + 9; i < line.size(); ++i) {
      if (line[i] == '%' && i + 2 < line.size()) {
        text += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
        i += 2;
      } else {
        text += line[i];
      }
    }
    out.emplace_back(line.substr(9, comma - 9), text);
  }
  return out;
}

TEST(MessageCatalogueTest, RepresentativeTextsToTheByte) {
  char tmpl[] = "/tmp/messages_test.XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  OmLog* saved = OmLog::Current();
  const OmUniString savedDir = OmLog::LogDirectory();
  MyLogger logger;
  OmLog::InitLogs(&logger, OmUniString(dir));
  ASSERT_TRUE(logger.SetupCSFilters({OmUniString("*/*/*:all.csl")}));

  LogStopped(604);
  LogPropsNotFound(OmUniString("/etc/q.properties"));
  LogHostListLen(OmUniString("Add Host"), 3u);
  LogLoadSent(5u, OmUniString("h"));
  LogResultsCached(-5, 42, 7, 3, 9);
  LogAttribGetFail(OmUniString("x"));
  logger.HaveForked();
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"quelmloadprobe/process/info", "Quelm loadprobe stopped - exitcode 604."},
      {"quelmloadprobe/initialize/error",
       "The properties file /etc/q.properties was not found. The quelm loadprobe has been "
       "initialized\nusing built-in defaults.\nThe most likely cause is incorrect configuration "
       "or installation.\nCreate the /etc/q.properties file or reinstall the Varosakit."},
      {"quelmloadprobe/host/moreinfo", "Add Host: There are 3 host objects in the Host List."},
      {"quelmloadprobe/responder/info", "Idle value 5 sent to h "},
      {"quelmloadprobe/results/moreinfo",
       "The following results have just been cached: idle=-5, swap=42, \nphysmemfree=7, "
       "swappedin=3, swappedout=9."},
      {"quelmloadprobe/get_attribute/error",
       "Failed to get attribute x\n.The loadprobe may not work successfully.\nCorrect the "
       "loadprobe configuration and restart it."}};
  EXPECT_EQ(ReadStructured(dir + "/all.csl"), expected);

  // Without a logger nothing is built.
  OmLog::InitLogs(nullptr, OmUniString(dir));
  const unsigned long before = OmLog::MessageCount();
  LogStarted();
  EXPECT_EQ(OmLog::MessageCount(), before);

  logger.SetupCSFilters({});
  OmLog::InitLogs(saved, savedDir);
  std::filesystem::remove_all(dir);
}

}  // namespace
