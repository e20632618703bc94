#ifndef QUELM_COMMAND_PRESSUREMETRICS_H_
#define QUELM_COMMAND_PRESSUREMETRICS_H_

#include <string>

#include "measure/Pressure.h"

// The stall figures as metric families, named as the node exporter names
// the host's: seconds waiting ("some") and stalled ("full") as counters,
// and the last 10 s average of each as a ratio gauge. Figures the scope
// lacks are left out.
std::string pressureMetrics(const PressureFigures& figures);

#endif  // QUELM_COMMAND_PRESSUREMETRICS_H_
