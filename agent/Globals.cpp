#include "agent/Globals.h"

#include "agent/MyLogger.h"
#include "foundation/event/OmEventLoop.h"
#include "foundation/process/OmUnixProcess.h"

// Constructed in this order before main runs: the process object, the loop on
// it, then the logger.
OmUnixProcess pr;
OmEventLoop eventloop(&pr);
MyLogger mylog;

Bootstrap* myBootstrap = nullptr;
Bogomips* myBogomips = nullptr;
Cache* myCache = nullptr;
Responder* myResponder = nullptr;
BaseFilter* myFilter = nullptr;
ChildManager* myChildManager = nullptr;
Listener* myListener = nullptr;
PidFile* myPidFile = nullptr;
Logging* bootLogger = nullptr;
