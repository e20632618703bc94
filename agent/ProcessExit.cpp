#include <cstdlib>

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/Messages.h"
#include "agent/PidFile.h"
#include "measure/BaseFilter.h"
#include "measure/Bogomips.h"
#include "measure/ChildManager.h"

void processExit(int status) {
  // The child manager first, so the tool is killed before anything else goes.
  delete myChildManager;
  myChildManager = nullptr;
  delete myPidFile;
  myPidFile = nullptr;
  delete myBootstrap;
  myBootstrap = nullptr;
  delete myBogomips;
  myBogomips = nullptr;
  delete myFilter;
  myFilter = nullptr;
  LogStopped(status);
  std::exit(status);
}
