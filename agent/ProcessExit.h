#ifndef QUELM_AGENT_PROCESSEXIT_H_
#define QUELM_AGENT_PROCESSEXIT_H_

// processExit's first half: destroys the single instances that must go before
// the stop message (the tool child, the pid file), in their fixed order. The
// listener, host list, responder and cache end with the process.
void destroySingleInstances();

#endif  // QUELM_AGENT_PROCESSEXIT_H_
