#include "agent/Globals.h"

#include <cstdlib>

#include "agent/Messages.h"
#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/process/OmUnixProcess.h"

// Constructed in this order before main runs: the process object, the loop on
// it, then the logger.
OmUnixProcess pr;
OmEventLoop eventloop(&pr);
MyLogger mylog;

const Settings* mySettings = nullptr;
Bootstrap* myBootstrap = nullptr;
Bogomips* myBogomips = nullptr;
Cache* myCache = nullptr;
Responder* myResponder = nullptr;
BaseFilter* myFilter = nullptr;
ChildManager* myChildManager = nullptr;
Listener* myListener = nullptr;
PidFile* myPidFile = nullptr;
Logging* bootLogger = nullptr;

namespace {

// The single instances belong to the layers above this one, so the routine
// that destroys them is theirs to install.
void (*g_teardown)() = [] {};

}  // namespace

void setTeardown(void (*teardown)()) { g_teardown = teardown; }

void processExit(int status) {
  g_teardown();
  LogStopped(status);
  std::exit(status);
}
