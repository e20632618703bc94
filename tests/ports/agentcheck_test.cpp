// The agent check's line for given averages; HAProxy's reading of it is the
// end-to-end test's business.
#include <gtest/gtest.h>

#include "agent/Settings.h"
#include "ports/AgentCheck.h"

TEST(AgentCheckTest, WeightDrainAndReady) {
  struct Case {
    uint32_t memoryShare, drainIdle, drainMemory;
    bool measured;
    uint32_t idle, vmemMiB;  // of 768 MiB configured
    const char* line;
  } cases[] = {
      {0, 0, 0, false, 0, 0, "\n"},  // nothing measured: no change
      {0, 0, 0, true, 80, 10, "80%\n"},
      {0, 0, 0, true, 0, 10, "1%\n"},  // never 0, which HAProxy would take as drain
      {0, 0, 0, true, 250, 10, "100%\n"},
      {100, 0, 0, true, 0, 384, "50%\n"},
      {50, 0, 0, true, 80, 9999, "90%\n"},  // free memory counts as at most 100 %
      {0, 30, 0, true, 29, 768, "drain\n"},
      {0, 30, 0, true, 30, 768, "ready 30%\n"},
      {0, 0, 50, true, 90, 383, "drain\n"},
      {0, 0, 50, true, 90, 384, "ready 90%\n"},
  };
  for (const Case& c : cases) {
    Settings settings;
    settings.agentCheckMemoryWeight = c.memoryShare;
    settings.agentCheckDrainIdle = c.drainIdle;
    settings.agentCheckDrainMemory = c.drainMemory;
    AgentCheck check(settings);
    StatsPacket average{};
    average.idle = c.idle;
    average.vmem = c.vmemMiB;
    EXPECT_EQ(check.answerFor(c.measured ? &average : nullptr), c.line) << c.idle << " " << c.vmemMiB;
  }
}
