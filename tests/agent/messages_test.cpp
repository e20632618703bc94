#include "agent/Messages.h"

#include <regex>
#include <set>

#include "AgentFixture.h"

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

using MessageTextTest = AgentTest;

TEST_F(MessageTextTest, RepresentativeTextsToTheByte) {
  LogPropsNotFound(OmUniString("/etc/q.properties"));
  LogHostListLen(OmUniString("Add Host"), 3u);
  LogLoadSent(5u, OmUniString("h"));
  LogAttribGetFail(OmUniString("x"));
  const std::string text = logText();
  // Each entry's first line reduced to its category.
  const std::regex header(R"([^\n]*\t \(pid \d+\)\t([^\t\n]+)\t#\d+\t[^\n]*\(\(legacy\)\)\n)");
  EXPECT_NE(std::string::npos, std::regex_replace(text, header, "$1: ").find(
      "quelmloadprobe/initialize/error: The properties file /etc/q.properties was not found. "
      "The quelm loadprobe has been initialized\nusing built-in defaults.\nThe most likely cause "
      "is incorrect configuration or installation.\nCreate the /etc/q.properties file or "
      "reinstall the Varosakit.\n"
      "quelmloadprobe/host/moreinfo: Add Host: There are 3 host objects in the Host List.\n"
      "quelmloadprobe/responder/info: Idle value 5 sent to h \n"
      "quelmloadprobe/get_attribute/error: Failed to get attribute x\n.The loadprobe may not "
      "work successfully.\nCorrect the loadprobe configuration and restart it.\n"))
      << text;

  // Without a logger nothing is built.
  OmLog::InitLogs(nullptr, OmUniString(dir));
  const unsigned long before = OmLog::MessageCount();
  LogStarted();
  EXPECT_EQ(OmLog::MessageCount(), before);
  OmLog::InitLogs(&mylog, OmUniString(dir));
}

}  // namespace
