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

  std::vector<std::string> Parse(const char* text) {
    OmUniString raw(text);
    Quelm_LbsTransmission t(raw);
    std::vector<std::string> lines;
    std::ifstream in(dir + "/parser.csl");
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  static bool Has(const std::string& line, const std::string& part) {
    return line.find(part) != std::string::npos;
  }

  MyLogger logger;
  std::string dir;
  OmLog* previous = nullptr;
  OmUniString previousDir;
};

const char kSyntax[] = "category=quelmloadprobe/command/error,";

TEST_F(TransmissionLogTest, WellFormedRequestLogsNothing) {
  EXPECT_TRUE(Parse("<znalbreq type=\"kill\"><id>7</id><version>1.0</version></znalbreq>").empty());
  EXPECT_TRUE(Parse("GET /?get&znalbinfo HTTP/1.0").empty());
}

TEST_F(TransmissionLogTest, TrailingTextIsOneSyntaxError) {
  auto lines = Parse("<znalbreq type=\"kill\"><id>7</id>\n</znalbreq>");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(Has(lines[0], kSyntax)) << lines[0];
  EXPECT_TRUE(Has(lines[0], "parameter list%0a%0a%0a at character position 1 because of "
                            "[Syntax error in attribute name]"))
      << lines[0];
}

TEST_F(TransmissionLogTest, MissingEndTagsNameTheirPosition) {
  // Root without end tag: the scan runs off the end of the 30-character text.
  auto lines = Parse("<znalbreq type=kill><id>7</id>");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(Has(lines[0], "at character position 30 because")) << lines[0];

  // Child without end tag: reported within the remainder holding that child.
  lines = Parse("<znalbreq type=kill><id>7</id><port>5</znalbreq>");
  ASSERT_EQ(2u, lines.size());
  EXPECT_TRUE(Has(lines[1], "list%0a<port>5%0a at character position 7 because")) << lines[1];

  // "</" without a closing '>' reports one past the end.
  lines = Parse("<a>x</a");
  ASSERT_EQ(3u, lines.size());
  EXPECT_TRUE(Has(lines[2], "at character position 8 because")) << lines[2];

  lines = Parse("");
  ASSERT_EQ(4u, lines.size());
  EXPECT_TRUE(Has(lines[3], "at character position 1 because")) << lines[3];
}

TEST_F(TransmissionLogTest, EmptyEndTagIsReportedAndAccepted) {
  auto lines = Parse("<znalbreq type=kill><id>7</></znalbreq>");
  ASSERT_EQ(1u, lines.size());
  EXPECT_TRUE(Has(lines[0], "category=quelmloadprobe/attribute/error,")) << lines[0];
  EXPECT_TRUE(Has(lines[0], "Failed to any attributes in <id>7</>.")) << lines[0];
}

TEST_F(TransmissionLogTest, UnclosedQuoteIsNotLogged) {
  EXPECT_TRUE(Parse("<znalbreq type=\"kill><id>7</id></znalbreq>").empty());
}

}  // namespace
