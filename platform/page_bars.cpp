#include "platform/page_bars.h"

#include "platform/platform.h"
#include "platform/proc_file.h"

#include <errno.h>

#include <sys/mman.h>
#include <sys/resource.h>

namespace k42mc::internal::platform {
namespace {

// Of Linux 6.13: they stand in the page tables.
constexpr int install_guards = 102, remove_guards = 103;

constinit bool cheap_bars = false;
constinit uintptr_t range_begin = 0;
constinit size_t range_size = 0;

class ErrnoKept {
public:
    ErrnoKept() = default;
    ~ErrnoKept() { errno = value_; }
    ErrnoKept(const ErrnoKept &) = delete;
    ErrnoKept &operator=(const ErrnoKept &) = delete;

private:
    const int value_ = errno;
};

void *pages_at(uintptr_t address) {
    return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr)
}

constexpr int reserved = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

// Where the process locks all its memory, ours is not to be: such pages cannot be barred.
bool install(uintptr_t begin, size_t size) {
    return madvise(pages_at(begin), size, install_guards) == 0 ||
           (errno == EINVAL && munlock(pages_at(range_begin), range_size) == 0 &&
            madvise(pages_at(begin), size, install_guards) == 0);
}

} // namespace

uintptr_t reserve_addresses(size_t size) {
    const ErrnoKept errno_kept;
    void *const begin = mmap(nullptr, size, PROT_NONE, reserved, -1, 0);
    if (begin == MAP_FAILED)
        return 0;
    return reinterpret_cast<uintptr_t>(begin);
}

void release_addresses(uintptr_t begin, size_t size) {
    const ErrnoKept errno_kept;
    munmap(pages_at(begin), size);
}

// Without huge pages then: a page that is open must not bring the memory of its neighbours. And out of core files, until
// there is something in it: such a mapping would be there in its full size.
bool has_cheap_bars(uintptr_t begin, size_t size) {
    const ErrnoKept errno_kept;
    cheap_bars = madvise(pages_at(begin), page_size(), install_guards) == 0;
    range_begin = begin;
    range_size = size;
    if (cheap_bars) {
        madvise(pages_at(begin), size, MADV_NOHUGEPAGE);
        madvise(pages_at(begin), size, MADV_DONTDUMP);
    }
    return cheap_bars;
}

size_t most_addresses() {
    rlimit limit{};
    const bool is_limited = getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur < SIZE_MAX;
    return is_limited ? static_cast<size_t>(limit.rlim_cur) : SIZE_MAX;
}

void *reserve_zeros(size_t size) {
    const ErrnoKept errno_kept;
    void *const begin = mmap(nullptr, size, PROT_READ, reserved, -1, 0);
    return begin != MAP_FAILED ? begin : nullptr;
}

bool open_zeros(void *begin, size_t size) {
    const ErrnoKept errno_kept;
    const uintptr_t page = page_size(), first = reinterpret_cast<uintptr_t>(begin) & -page,
                    end = (reinterpret_cast<uintptr_t>(begin) + size + page - 1) & -page;
    return mprotect(pages_at(first), end - first, PROT_READ | PROT_WRITE) == 0;
}

size_t most_mappings() {
    constexpr size_t usual = 65530;
    const ErrnoKept errno_kept;
    ProcFile file("/proc/sys/vm/max_map_count");
    int last;
    const uint64_t most = file.decimal(last);
    return most != 0 ? static_cast<size_t>(most) : usual;
}

bool prepare_pages(uintptr_t begin, size_t size) {
    const ErrnoKept errno_kept;
    return !cheap_bars ||
           (install(begin, size) && mprotect(pages_at(begin), size, PROT_READ | PROT_WRITE) == 0 &&
            madvise(pages_at(begin), size, MADV_DODUMP) == 0);
}

bool open_pages(uintptr_t begin, size_t size) {
    const ErrnoKept errno_kept;
    return cheap_bars ? madvise(pages_at(begin), size, remove_guards) == 0
                      : mprotect(pages_at(begin), size, PROT_READ | PROT_WRITE) == 0;
}

// A new mapping becomes one with its neighbours, which are as it is.
bool bar_pages(uintptr_t begin, size_t size) {
    const ErrnoKept errno_kept;
    return cheap_bars
               ? install(begin, size)
               : mmap(pages_at(begin), size, PROT_NONE, reserved | MAP_FIXED, -1, 0) != MAP_FAILED;
}

} // namespace k42mc::internal::platform
