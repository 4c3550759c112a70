#include "wrappers/fill.h"

#include "linkage/linkage.h"

#include <errno.h>
#include <limits.h>
#include <string.h>

namespace k42mc::internal {

constinit std::atomic<int> new_byte = -1;

void *fill(void *user, size_t kept, size_t size) {
    const int byte = new_byte.load(std::memory_order_relaxed);
    if (user != nullptr && byte >= 0 && kept < size)
        memset(static_cast<char *>(user) + kept, byte, size - kept);
    return user;
}

} // namespace k42mc::internal

int k42mcx_fill(int byte) {
    if (byte < -1 || byte > UCHAR_MAX)
        return EINVAL;
    k42mc::internal::new_byte.store(byte, std::memory_order_relaxed);
    return 0;
}

K42MC_EXPORT(k42mcx_fill);
