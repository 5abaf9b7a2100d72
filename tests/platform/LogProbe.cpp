// Writes the level that the environment chose, and a line of each level through the log library.
#include <cstdio>

#include "oskelo/log.h"

int main() {
  std::printf("level %d\n", oskeloLogGetLevel());
  std::fflush(stdout);
  for (int level = OSKELO_LOG_DEBUG; level <= OSKELO_LOG_OFF; ++level) {
    oskeloLogPrint(0, level, "PROBE", "line of level %d\n", level);
  }
  return 0;
}
