// Eight threads with a million live blocks each, or as many as the argument says. Takes 3 GB of memory.
#include "many_blocks.h"

#include <cstdlib>

int main(int argc, char **argv) {
    return counts_blocks(argc > 1 ? strtoul(argv[1], nullptr, 10) : 1'000'000) ? 0 : 1;
}
