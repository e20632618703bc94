#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/MyLogger.h"
#include "command/Quelm_LbsTransmission.h"
#include "foundation/log/OmLog.h"

namespace {

// Sends every message to a structured log in a fresh directory, where each
// message is exactly one line. A logger of its own keeps the test free of the
// agent's global objects.
class TransmissionLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "parserlogXXXXXX").string();
    ASSERT_NE(nullptr, mkdtemp(pattern.data()));
    dir = pattern;
    previous = OmLog::Current();
    previousDir = OmLog::LogDirectory();
    OmLog::InitLogs(&logger, OmUniString(dir));
    ASSERT_TRUE(logger.SetupCSFilters({OmUniString("*/*/*:parser.csl")}));
  }

  void TearDown() override {
    logger.SetupCSFilters({});
    OmLog::InitLogs(previous, previousDir);
    std::filesystem::remove_all(dir);
  }

  MyLogger logger;
  std::string dir;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

TEST_F(TransmissionLogTest, EachUnreadablePartIsOneLineWithItsPosition) {
  const char* kSyntax = "category=quelmloadprobe/command/error,";
  const struct {
    const char* text;
    const char* category;  // nullptr: nothing is logged
    const char* detail;
  } cases[] = {
      {"<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>", nullptr, nullptr},
      {"GET /?get&znalbinfo HTTP/1.0", nullptr, nullptr},
      // An unclosed quote is kept in the transmission only.
      {"<znalbreq type=\"kill><id>7</id></znalbreq>", nullptr, nullptr},
      {"<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>", kSyntax,
       "parameter list%0a%0a%0a at character position 1 because of "
       "[Syntax error in attribute name]"},
      // Root without end tag: the scan runs off the end of the 30-character text.
      {"<znalbreq type=kill><id>7</id>", kSyntax, "at character position 30 because"},
      // Child without end tag: reported within the remainder holding that child.
      {"<znalbreq type=kill><id>7</id><port>5</znalbreq>", kSyntax,
       "list%0a<port>5%0a at character position 7 because"},
      // "</" without a closing '>' reports one past the end.
      {"<a>x</a", kSyntax, "at character position 8 because"},
      {"", kSyntax, "at character position 1 because"},
      {"<znalbreq type=kill><id>7</></znalbreq>", "category=quelmloadprobe/attribute/error,",
       "Failed to any attributes in <id>7</>."},
  };
  size_t logged = 0;
  for (const auto& c : cases) {
    OmUniString raw(c.text);
    Quelm_LbsTransmission t(raw);
    std::vector<std::string> lines;
    std::ifstream in(dir + "/parser.csl");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    if (c.category != nullptr) ++logged;
    ASSERT_EQ(logged, lines.size()) << c.text;
    if (c.category == nullptr) continue;
    EXPECT_NE(std::string::npos, lines.back().find(c.category)) << lines.back();
    EXPECT_NE(std::string::npos, lines.back().find(c.detail)) << lines.back();
  }
}

}  // namespace
