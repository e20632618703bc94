#include "hosts/HostListMgr.h"

void HostListMgr::percentChangeCheck(unsigned) {}
