#include "CommandLine.h"

// Everything the command opened is released inside RunCommandLine, before
// main returns: a local domain writes its commits to disk when it goes.
int main(int argc, char** argv) { return QelSS::Qss::RunCommandLine(argc, argv); }
