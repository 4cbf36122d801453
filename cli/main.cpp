// The tool's process entry: one command per run, with the only exception handler of the program.
#include <cstdio>
#include <exception>

#include "cli/tide_watch_ctrl.h"

int main(int argc, char** argv) {
  try {
    return DoMain(argc, argv);
  } catch (const std::exception& e) {
    // The JSON library throws for numbers it refuses to convert; nothing below handles them.
    printf("tide_watch_ctrl : Catcher Exception:%s Teminate program ..", e.what());
    return -1;
  }
}
