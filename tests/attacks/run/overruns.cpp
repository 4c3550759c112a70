// k42mc run
// The same under the command: what the shim knows of blocks and their sites is out of their reach.
#define UNDER_COMMAND
#include "../overruns.cpp"
