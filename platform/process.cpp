#include "platform.h"

#include <cerrno>

#include <sys/resource.h>
#include <sys/single_threaded.h>
#include <unistd.h>

namespace k42mc::platform {

const char *progname() {
    return program_invocation_short_name;
}

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

bool single_threaded() {
    return __libc_single_threaded;
}

uint64_t descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return UINT64_MAX;
    return limit.rlim_cur;
}

} // namespace k42mc::platform
