// Entry points of the tool's command line: `DoMain` performs one command (or becomes a trap
// receiver) and returns the process exit status; `long_help` prints the usage text.
#pragma once

// Parses the one command option and its key=value words, runs the command and returns its status.
// Resets the option parser first, so it may be called any number of times in one process.
int DoMain(int argc, char** argv);

// Prints the usage text on standard output.
void long_help();
