#ifndef QUELM_AGENT_STARTUP_H_
#define QUELM_AGENT_STARTUP_H_

// Builds the agent's single instances in their fixed order, runs the event
// loop and ends through processExit. Returns only when the command port
// cannot be opened.
int probeMain(int argc, char** argv);

#endif  // QUELM_AGENT_STARTUP_H_
