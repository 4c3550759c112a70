// k42mc run
// Text of the report that does not fit under the limit on the size of files, in a process without a signal.
#include <cstdlib>
#include <sys/resource.h>

int main() {
    constexpr rlimit limit = {4096, 4096};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
        return 1;
    void *volatile lost;
    for (int i = 0; i < 500; ++i)
        lost = malloc(10);
    return lost != nullptr ? 0 : 1;
}
