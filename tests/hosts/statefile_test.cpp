#include "hosts/StateFile.h"

#include <vector>

#include "AgentFixture.h"

namespace {

// Port 9000 + id, rate 5, window 3 + id, reply 10, change 20, flags 7, expiry 100 s * id.
StateFile::Entry entry(unsigned id, std::string name, std::string text = "t") {
  return {id, 9000 + id, 5, 3 + id, 10, 20, 7, kNineOClock + 100 * id, std::move(name), std::move(text)};
}

std::string ids(const std::vector<StateFile::Entry>& entries) {
  std::string out;
  for (const auto& e : entries) out += std::to_string(e.id) + " ";
  return out;
}

using StateFileTest = AgentTest;

// Adds and kills replay to the live entries; a log cut anywhere gives its last whole line's state.
TEST_F(StateFileTest, ReplaysWholeLinesOfALogCutAnywhere) {
  StateFile file(dir + "/state");
  ASSERT_TRUE(file.rewrite({entry(1, "a b%c"), entry(2, "h", "")}));
  ASSERT_TRUE(file.recordAdd(entry(3, "\xc3\xa9t\xc3\xa9\n", "x y")));
  ASSERT_TRUE(file.recordRemove(2));
  ASSERT_TRUE(file.recordAdd(entry(4, "host.example")));
  StateFile::Replay replay;
  ASSERT_TRUE(StateFile(dir + "/state").load(replay));
  EXPECT_EQ("1 3 4 ", ids(replay.entries));
  EXPECT_EQ(0u, replay.badLines);
  const StateFile::Entry& e = replay.entries[1];
  EXPECT_TRUE(e.name == "\xc3\xa9t\xc3\xa9\n" && e.text == "x y" && e.port == 9003 &&
              e.windowSize == 6 && e.expiry == kNineOClock + 300 && replay.entries[0].name == "a b%c");

  const std::string log = ReadText(dir + "/state");
  for (size_t cut = 0; cut <= log.size(); ++cut) {
    const std::string part = log.substr(0, cut);
    const size_t whole = part.rfind('\n') == std::string::npos ? 0 : part.rfind('\n') + 1;
    const StateFile::Replay cutReplay = StateFile::parse(part);
    EXPECT_EQ(ids(StateFile::parse(log.substr(0, whole)).entries), ids(cutReplay.entries)) << cut;
    EXPECT_EQ(whole == cut ? 0u : 1u, cutReplay.badLines) << cut;
  }
}

// A damaged line is skipped and named; a foreign file gives nothing.
TEST_F(StateFileTest, DamagedLinesAreNamedAndSkipped) {
  StateFile file(dir + "/state");
  ASSERT_TRUE(file.rewrite({entry(1, "a"), entry(2, "b"), entry(3, "c")}));
  std::string log = ReadText(dir + "/state");
  log[log.find("+ 2") + 4] ^= 1;  // line 3
  StateFile::Replay replay = StateFile::parse(log);
  EXPECT_EQ("1 3 ", ids(replay.entries));
  EXPECT_EQ(3u, replay.firstBadLine);
  EXPECT_EQ(1u, replay.badLines);

  replay = StateFile::parse("varosa.config.quelmloadbalancing.port=3579\n" + log);
  EXPECT_TRUE(replay.entries.empty());
  EXPECT_EQ(1u, replay.firstBadLine);
}

// Restored hosts keep ids, wishes and lifetime; expired ones go; the file stays compact.
TEST_F(StateFileTest, HostListRestoresAndRecords) {
  const std::string path = dir + "/state";
  {
    StateFile file(path);
    StateFile::Entry live = entry(1, "127.0.0.1", "keep");
    live.port = port;
    live.expiry = kNineOClock + 50;
    StateFile::Entry expired = entry(2, "127.0.0.1");
    expired.expiry = kNineOClock;
    ASSERT_TRUE(file.rewrite({live, expired}));
    ASSERT_TRUE(file.recordAdd(entry(3, "127.0.0.1")));
    ASSERT_TRUE(file.recordRemove(3));
  }
  HostListMgr::restoreState(new StateFile(path));
  ASSERT_EQ(1u, HostListMgr::getHosts().Length());
  Host* host = HostListMgr::getHosts().Find(1);
  ASSERT_NE(nullptr, host);
  EXPECT_EQ(kNineOClock + 50, host->getExpiryTime().seconds);
  EXPECT_EQ(4u, host->getWindowSize());
  EXPECT_EQ("keep", host->getText().AsUtf8());
  EXPECT_EQ(kNineOClock + 10, host->getNextSendTime().seconds);
  EXPECT_EQ(1u, logged("1 subscriptions were restored from the state file " + path +
                       "; 1 had expired while the quelm loadprobe was stopped and 0 could not be "
                       "created again."));
  EXPECT_EQ(2u, StateFile::parse(ReadText(path)).lines);  // rewritten at once

  for (unsigned id = 10; id < 110; ++id) ASSERT_NE(nullptr, addHost(id, Host::CPU));
  for (unsigned id = 10; id < 100; ++id) ASSERT_TRUE(HostListMgr::removeHost(id));
  env.now = OmTimeVal(kNineOClock + 3600, 0);
  HostListMgr::regularTimeoutCB(nullptr, OmEvent::fired);  // expires 1 with the rest
  const StateFile::Replay replay = StateFile::parse(ReadText(path));
  EXPECT_EQ("", ids(replay.entries));
  EXPECT_LT(replay.lines, 2u * 10 + 64 + 2);
  // An unreadable file is one message, and the probe goes on without it.
  std::filesystem::create_directory(dir + "/folder");
  HostListMgr::restoreState(new StateFile(dir + "/folder"));
  EXPECT_EQ(1u, logged("The state file " + dir + "/folder could not be read"));
  HostListMgr::restoreState(nullptr);
}

}  // namespace
