#include "platform/platform.h"

#include <cerrno>
#include <cstdint>

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace k42mc::internal::platform {
namespace {

constexpr uintptr_t kernel_signal_set_bytes = 8;

enum class Answer { readable, fault, none };

// The kernel copies the new signal set in before it refuses the unknown way of applying it. A sandbox may
// refuse the call by itself, which says nothing. Rounded down, the set does not reach into the next page.
Answer ask_for_signal_set(uintptr_t address) {
    constexpr int no_such_way = -1;
    const uintptr_t set = address & -kernel_signal_set_bytes;
    if (syscall(SYS_rt_sigprocmask, no_such_way, set, nullptr, kernel_signal_set_bytes) == 0)
        return Answer::none;
    return errno == EINVAL ? Answer::readable : errno == EFAULT ? Answer::fault : Answer::none;
}

// The kernel reads the word to compare it, and moves none of the threads that may wait for it. Sandboxes let
// this call through, as locks need it.
bool faults_as_lock(uintptr_t address) {
    const uintptr_t word = address & -sizeof(uint32_t);
    return syscall(SYS_futex, word, FUTEX_CMP_REQUEUE_PRIVATE, 0, nullptr, word, 0) < 0 &&
           errno == EFAULT;
}

// At address 0 no set is given at all. Where neither call answers, that is no reason to distrust the memory.
bool can_read_page(uintptr_t address) {
    if (address < kernel_signal_set_bytes)
        return false;
    const Answer answer = ask_for_signal_set(address);
    return answer == Answer::readable || (answer == Answer::none && !faults_as_lock(address));
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

void *map(size_t size, int sharing) {
    const int kept_errno = errno;
    void *const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, sharing | MAP_ANONYMOUS, -1, 0);
    errno = kept_errno;
    return memory != MAP_FAILED ? memory : nullptr;
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

void *map_memory(size_t size) {
    return map(size, MAP_PRIVATE);
}

void *map_shared_memory(size_t size) {
    return map(size, MAP_SHARED);
}

void unmap_memory(void *memory, size_t size) {
    const int kept_errno = errno;
    munmap(memory, size);
    errno = kept_errno;
}

// Pages that are shared or locked stay as they are, whatever the system says.
bool discard(void *memory, size_t size) {
    const int kept_errno = errno;
    auto *const first = static_cast<volatile char *>(memory);
    *first = 1;
    const bool discarded = madvise(memory, size, MADV_DONTNEED) == 0 && *first == 0;
    errno = kept_errno;
    return discarded;
}

} // namespace k42mc::internal::platform
