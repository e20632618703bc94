#ifndef QUELM_AGENT_COMMANDLINE_H_
#define QUELM_AGENT_COMMANDLINE_H_

// The probe's few flags, read before anything else starts: --help,
// --version and --check-config DIR. Each prints, never opens a port or
// starts the tool, and ends the process. Anything else on the command line
// is the properties folder and the processor count, as it always was; a
// folder whose name is one of the flags is given as ./--help.
//
// Returns the exit status when argv[1] is a flag, -1 otherwise.
int runCommandLineFlag(int argc, char** argv);

#endif  // QUELM_AGENT_COMMANDLINE_H_
