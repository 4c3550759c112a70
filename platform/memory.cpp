#include "platform/platform.h"

#include <cerrno>
#include <cstdint>

#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

constexpr uintptr_t kernel_signal_set_bytes = 8;

// The kernel copies the new signal set in before it refuses the unknown way of applying it. Rounded
// down, the set does not reach into the next page. Whatever else may be wrong, in a sandbox say, is no
// reason to distrust the memory. At address 0 no set is given at all.
bool can_read_page(uintptr_t address) {
    constexpr int no_such_way = -1;
    const uintptr_t set = address & -kernel_signal_set_bytes;
    return set != 0 &&
           (syscall(SYS_rt_sigprocmask, no_such_way, set, nullptr, kernel_signal_set_bytes) == 0 ||
            errno != EFAULT);
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

} // namespace k42mc::internal::platform
