#pragma once

namespace QelSS::Qss {

// Parses the command line, runs the command and prints its failure, if any,
// to standard error. Returns the process's exit status (see ExitStatus).
int RunCommandLine(int argc, char** argv);

}  // namespace QelSS::Qss
