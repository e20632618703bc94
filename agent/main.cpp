#include "agent/Startup.h"

int main(int argc, char** argv) { return probeMain(argc, argv); }
