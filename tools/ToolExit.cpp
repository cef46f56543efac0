#include "tools/ToolExit.h"

#include <cstdio>

// What went to standard output so far comes first, so that the two streams
// read in order on one terminal.
void Complain(const std::string& message) {
    std::fflush(stdout);
    std::fprintf(stderr, "kavodvdb: %s\n", message.c_str());
}
