#ifndef QUELM_AGENT_GLOBALS_H_
#define QUELM_AGENT_GLOBALS_H_

// The agent's process-wide objects, reachable from every layer. The single
// instances are created by start-up in a fixed order and stay null until
// then; a test creates the ones the code under test uses.
struct Settings;
class Bootstrap;
class Bogomips;
class Cache;
class Responder;
class BaseFilter;
class ChildManager;
class LoadSampler;
class Listener;
class PidFile;
class Logging;
class OmUnixProcess;
class OmEventLoop;

extern OmUnixProcess pr;
extern OmEventLoop eventloop;

extern const Settings* mySettings;  // myBootstrap's settings
extern Bootstrap* myBootstrap;
extern Bogomips* myBogomips;
extern Cache* myCache;
extern Responder* myResponder;
extern BaseFilter* myFilter;
extern ChildManager* myChildManager;
extern LoadSampler* myLoadSampler;  // only when the load is not the tool's
extern Listener* myListener;
extern PidFile* myPidFile;
extern Logging* bootLogger;

// Tears the agent down (the routine start-up installed), logs the stop and
// exits with status.
[[noreturn]] void processExit(int status);
void setTeardown(void (*teardown)());

#endif  // QUELM_AGENT_GLOBALS_H_
