// Puts functions of the test's own in the place of the system allocator's and of mmap, so that calls can be
// counted and made to fail. Included by one source of an executable. A sanitizer brings an allocator of its own:
// tests that need this one skip there.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

struct MallocCalls {
    inline static int until_failure = 0; // the allocation that fails, counted down; 0: none
    inline static bool failing_stays = false;
    inline static int allocations = 0;
    inline static int releases = 0; // of mappings, too
    inline static void (*during_allocation)() = nullptr;
    inline static void (*during_release)(void *) = nullptr;

    static bool fails() {
        ++allocations;
        if (during_allocation != nullptr)
            during_allocation();
        return is_the_one();
    }

    static bool is_the_one() {
        if (until_failure == 0 || --until_failure > 0)
            return false;
        until_failure = failing_stays;
        errno = ENOMEM;
        return true;
    }
};

// Runs action while the nth allocation or mapping, and with `stays` all later ones, fail.
template <class Action> void failing_malloc(int nth, bool stays, Action action) {
    MallocCalls::until_failure = nth;
    MallocCalls::failing_stays = stays;
    action();
    MallocCalls::until_failure = 0;
}

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
#define NEEDS_OWN_MALLOC() GTEST_SKIP() << "the sanitizer's allocator is in place"
#else
#define NEEDS_OWN_MALLOC() static_cast<void>(0)

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);

void free(void *ptr) noexcept {
    MallocCalls::releases += ptr != nullptr;
    if (MallocCalls::during_release != nullptr)
        MallocCalls::during_release(ptr);
    __libc_free(ptr);
}
void *malloc(size_t size) noexcept {
    return MallocCalls::fails() ? nullptr : __libc_malloc(size);
}
void *calloc(size_t nmemb, size_t size) noexcept {
    return MallocCalls::fails() ? nullptr : __libc_calloc(nmemb, size);
}
void *realloc(void *ptr, size_t size) noexcept {
    return MallocCalls::fails() ? nullptr : __libc_realloc(ptr, size);
}
void *mmap(void *address, size_t size, int protection, int flags, int file, off_t offset) noexcept {
#ifdef SYS_mmap2
    const long mapped = syscall(SYS_mmap2, address, size, protection, flags, file, offset >> 12);
#else
    const long mapped = syscall(SYS_mmap, address, size, protection, flags, file, offset);
#endif
    if (MallocCalls::is_the_one()) {
        syscall(SYS_munmap, mapped, size);
        return MAP_FAILED;
    }
    return reinterpret_cast<void *>(mapped);
}
int munmap(void *address, size_t size) noexcept {
    ++MallocCalls::releases;
    return int(syscall(SYS_munmap, address, size));
}
}
#endif
