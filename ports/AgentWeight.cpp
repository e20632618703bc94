#include "ports/AgentWeight.h"

#include <algorithm>
#include <cmath>

#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/Settings.h"
#include "measure/LoadSampler.h"

AgentFigures AgentWeight::figuresNow(const StatsPacket& average, unsigned memoryPercent,
                                     const Settings& settings) {
  AgentFigures f;
  f.idle = std::min<unsigned>(average.idle, 100);
  f.memory = memoryPercent;
  // The balancer asks every second or so: an in-process source can answer
  // for that second, where the cache's window would hide a change for the
  // whole window.
  if (myLoadSampler != nullptr) {
    const int fresh = myLoadSampler->freshIdle(LoadSampler::steadyNow());
    if (fresh >= 0) f.idle = static_cast<unsigned>(fresh);
  }
  if (settings.agentCheckPressureWeight != 0 || settings.agentCheckDrainPressure != 0) {
    const PressureLine cpu = scopePressure().some[PressureFigures::Cpu];
    f.pressureKnown = cpu.present;
    f.cpuPressure = static_cast<unsigned>(std::lround(std::clamp(cpu.avg10, 0.0, 100.0)));
  }
  return f;
}

// margin 0: the drain test; a margin: the test a drained server must pass
// to be ready, every threshold cleared by that much.
bool AgentWeight::shouldDrain(const AgentFigures& f, unsigned margin) const {
  const unsigned idleLine = settings.agentCheckDrainIdle, memoryLine = settings.agentCheckDrainMemory;
  const unsigned pressureLine = settings.agentCheckDrainPressure;
  if (idleLine != 0 && f.idle < idleLine + margin) return true;
  if (memoryLine != 0 && f.memory < memoryLine + margin) return true;
  if (pressureLine != 0 && f.pressureKnown && f.cpuPressure + margin > pressureLine) return true;
  return false;
}

AgentWeight::Weight AgentWeight::decide(const AgentFigures& f) const {
  if (shouldDrain(f, draining ? settings.agentCheckReadyMargin : 0)) return {true, 0};
  const unsigned memoryShare = std::min<unsigned>(settings.agentCheckMemoryWeight, 100);
  // Without pressure figures their share goes back to idle.
  const unsigned pressureShare =
      f.pressureKnown ? std::min<unsigned>(settings.agentCheckPressureWeight, 100 - memoryShare) : 0;
  const unsigned idleShare = 100 - memoryShare - pressureShare;
  const unsigned unstalled = 100 - std::min<unsigned>(f.cpuPressure, 100);
  unsigned weight = (idleShare * f.idle + memoryShare * f.memory + pressureShare * unstalled + 50) / 100;
  weight = std::clamp(weight, 1u, 100u);
  const unsigned maxRise = settings.agentCheckMaxRise;
  if (maxRise != 0 && lastWeight >= 0) {
    weight = std::min(weight, std::max(1u, static_cast<unsigned>(lastWeight) + maxRise));
  }
  return {false, weight};
}

std::string AgentWeight::answer(const AgentFigures& f) {
  const Weight w = decide(f);
  if (w.drain != draining) {
    draining = w.drain;
    const unsigned pressureLine = settings.agentCheckDrainPressure;
    if (!w.drain) {
      LogAgentCheckReady(f.idle, f.memory);
    } else if (pressureLine != 0 && f.pressureKnown && f.cpuPressure > pressureLine) {
      LogAgentCheckPressureDrain(f.cpuPressure);
    } else {
      LogAgentCheckDrain(f.idle, f.memory);
    }
  }
  // A server back from drain starts low when rises are limited.
  lastWeight = static_cast<int>(w.percent);
  if (w.drain) return "drain\n";
  const std::string percent = std::to_string(w.percent) + "%\n";
  // Only a probe that may drain says ready: otherwise the server's
  // administrative state stays the operator's alone.
  const bool mayDrain = settings.agentCheckDrainIdle != 0 || settings.agentCheckDrainMemory != 0 ||
                        settings.agentCheckDrainPressure != 0;
  return mayDrain ? "ready " + percent : percent;
}
