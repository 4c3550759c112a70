#include "platform.h"

#include <cerrno>
#include <cstdint>

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::platform {
namespace {

constexpr uintptr_t kernel_signal_set_bytes = 8;

// The kernel copies the new signal set in before it refuses the unknown way of applying it. Rounded
// down, the set does not reach into the next page. At address 0 no set is given, so none is refused.
bool can_read_page(uintptr_t address) {
    constexpr int no_such_way = -1;
    const long result = syscall(SYS_rt_sigprocmask, no_such_way, address & -kernel_signal_set_bytes,
                                nullptr, kernel_signal_set_bytes);
    return result == -1 && errno == EINVAL;
}

bool can_read_pages(uintptr_t first, uintptr_t last) {
    const uintptr_t page = page_size();
    for (uintptr_t address = first; can_read_page(address); address += page) {
        address &= -page;
        if (last - address < page)
            return true;
    }
    return false;
}

} // namespace

bool readable(const void *address, size_t size) {
    if (size == 0)
        return true;
    const auto first = reinterpret_cast<uintptr_t>(address);
    const uintptr_t last = first + (size - 1);
    const int kept_errno = errno;
    const bool result = last >= first && can_read_pages(first, last);
    errno = kept_errno;
    return result;
}

} // namespace k42mc::platform
