// Eight threads with 10,000 live blocks each.
#include "many_blocks.h"

int main() {
    return counts_blocks(10'000) ? 0 : 1;
}
