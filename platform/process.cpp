#include "platform.h"

#include <cerrno>

#include <unistd.h>

namespace k42mc::platform {

const char *progname() {
    return program_invocation_short_name;
}

size_t page_size() {
    return static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace k42mc::platform
