#include "agent/ProcessExit.h"

#include "agent/Bootstrap.h"
#include "agent/Globals.h"
#include "agent/PidFile.h"
#include "agent/SystemdNotifier.h"
#include "hosts/HostListMgr.h"
#include "measure/BaseFilter.h"
#include "measure/Bogomips.h"
#include "measure/ChildManager.h"
#include "measure/LoadSampler.h"

void destroySingleInstances() {
  // Told first: what follows is the stop itself.
  if (mySystemdNotifier != nullptr) mySystemdNotifier->stopping();
  delete mySystemdNotifier;
  mySystemdNotifier = nullptr;
  // The child manager first, so the tool is killed before anything else goes.
  delete myChildManager;
  myChildManager = nullptr;
  delete myLoadSampler;
  myLoadSampler = nullptr;
  delete myPidFile;
  myPidFile = nullptr;
  HostListMgr::freeHosts();
  mySettings = nullptr;
  delete myBootstrap;
  myBootstrap = nullptr;
  delete myBogomips;
  myBogomips = nullptr;
  delete myFilter;
  myFilter = nullptr;
}
