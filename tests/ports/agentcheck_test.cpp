// The agent check's line for given averages (HAProxy's side: the end-to-end test).
#include <gtest/gtest.h>

#include "agent/Settings.h"
#include "ports/AgentCheck.h"
#include "ports/AgentWeight.h"

#include <vector>

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

// Ready margin, limited rise and pressure: each row one check's answers in turn.
TEST(AgentCheckTest, MarginRiseAndPressureSequences) {
  struct Step {
    uint32_t idle;
    int pressure;  // -1: the scope has no pressure figures
    const char* line;
  };
  struct Case {
    uint32_t drainIdle, margin, maxRise, pressureWeight, drainPressure;
    std::vector<Step> steps;
  } cases[] = {
      // Hovering around the line: no flapping with a margin of 10.
      {30, 10, 0, 0, 0, {{29, -1, "drain\n"}, {31, -1, "drain\n"}, {39, -1, "drain\n"}, {40, -1, "ready 40%\n"}, {31, -1, "ready 31%\n"}}},
      {30, 0, 0, 0, 0, {{29, -1, "drain\n"}, {31, -1, "ready 31%\n"}}},  // no margin: as before
      // Down at once, up by at most 20 a answer; back from drain from 0.
      {0, 0, 20, 0, 0, {{90, -1, "90%\n"}, {5, -1, "5%\n"}, {90, -1, "25%\n"}, {90, -1, "45%\n"}, {30, -1, "30%\n"}}},
      {10, 0, 20, 0, 0, {{5, -1, "drain\n"}, {90, -1, "ready 20%\n"}, {90, -1, "ready 40%\n"}}},
      // Half the weight from pressure; without figures idle takes it all.
      {0, 0, 0, 50, 0, {{80, 40, "70%\n"}, {80, -1, "80%\n"}}},
      {0, 5, 0, 0, 50, {{90, 50, "ready 90%\n"}, {90, 60, "drain\n"}, {90, 46, "drain\n"}, {90, 45, "ready 90%\n"}}},
  };
  for (const Case& c : cases) {
    Settings settings;
    settings.agentCheckDrainIdle = c.drainIdle;
    settings.agentCheckReadyMargin = c.margin;
    settings.agentCheckMaxRise = c.maxRise;
    settings.agentCheckPressureWeight = c.pressureWeight;
    settings.agentCheckDrainPressure = c.drainPressure;
    AgentWeight weight(settings);
    int n = 0;
    for (const Step& s : c.steps) {
      AgentFigures f;
      f.idle = s.idle;
      f.pressureKnown = s.pressure >= 0;
      f.cpuPressure = s.pressure >= 0 ? static_cast<unsigned>(s.pressure) : 0;
      EXPECT_EQ(weight.answer(f), s.line) << "case drain " << c.drainIdle << " rise " << c.maxRise << " step " << n++;
    }
  }
}
