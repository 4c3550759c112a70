/*
 * Replaces the global operators new and delete of a program by ones over guarded blocks. Include it in
 * exactly one C++ source file (C++11 or later) of the program; nothing needs to be called.
 *
 * A single object is a block of type FIX, an array one of type VAR, so that reports count them apart and
 * a block that is released by the wrong kind of delete, by free, or that malloc made and delete
 * releases, stops the process with a BF. The operators cannot know their caller's site: blocks are
 * recorded under "operator new" and "operator new[]", line 0, and told apart by their traces.
 */
#ifndef K42MC_NEW_HPP
#define K42MC_NEW_HPP

#include <k42mc/extra.h>
#include <k42mc/memcheck.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace k42mc_new {

struct Kind {
    int type;
    const char *allocating;
    const char *releasing;
};

constexpr Kind object = {MC_FIX, "operator new", "operator delete"};
constexpr Kind array = {MC_VAR, "operator new[]", "operator delete[]"};

// Null when there is no memory and no new-handler left to make some. A handler may throw.
inline void *try_allocate(const Kind &kind, std::size_t alignment, std::size_t size) {
    for (;;) {
        if (void *block = ::k42mcx_alloc(kind.allocating, 0, kind.type, alignment, size))
            return block;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr || errno == EINVAL) // no handler makes an alignment possible
            return nullptr;
        handler();
    }
}

inline void *allocate(const Kind &kind, std::size_t alignment, std::size_t size) {
    if (void *block = try_allocate(kind, alignment, size))
        return block;
#ifdef __cpp_exceptions
    throw std::bad_alloc();
#else
    std::abort();
#endif
}

inline void *allocate_nothrow(const Kind &kind, std::size_t alignment, std::size_t size) noexcept {
#ifdef __cpp_exceptions
    try {
        return try_allocate(kind, alignment, size);
    } catch (...) {
        return nullptr;
    }
#else
    return try_allocate(kind, alignment, size);
#endif
}

inline void release(const Kind &kind, void *block) noexcept {
    ::k42mcx_free(kind.releasing, 0, kind.type, block);
}

} // namespace k42mc_new

void *operator new(std::size_t size) {
    return k42mc_new::allocate(k42mc_new::object, 1, size);
}

void *operator new[](std::size_t size) {
    return k42mc_new::allocate(k42mc_new::array, 1, size);
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return k42mc_new::allocate_nothrow(k42mc_new::object, 1, size);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return k42mc_new::allocate_nothrow(k42mc_new::array, 1, size);
}

void operator delete(void *block) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

void operator delete(void *block, const std::nothrow_t &) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block, const std::nothrow_t &) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

// Defined whatever the standard of this file: others may be compiled for a later one.
void operator delete(void *block, std::size_t) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block, std::size_t) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

#ifdef __cpp_aligned_new

namespace k42mc_new {

// The least that a guarded block can be told to have.
constexpr std::size_t least(std::align_val_t alignment) noexcept {
    return static_cast<std::size_t>(alignment) < sizeof(void *) ? sizeof(void *)
                                                                : static_cast<std::size_t>(alignment);
}

} // namespace k42mc_new

void *operator new(std::size_t size, std::align_val_t alignment) {
    return k42mc_new::allocate(k42mc_new::object, k42mc_new::least(alignment), size);
}

void *operator new[](std::size_t size, std::align_val_t alignment) {
    return k42mc_new::allocate(k42mc_new::array, k42mc_new::least(alignment), size);
}

void *operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
    return k42mc_new::allocate_nothrow(k42mc_new::object, k42mc_new::least(alignment), size);
}

void *operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t &) noexcept {
    return k42mc_new::allocate_nothrow(k42mc_new::array, k42mc_new::least(alignment), size);
}

void operator delete(void *block, std::align_val_t) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block, std::align_val_t) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

void operator delete(void *block, std::align_val_t, const std::nothrow_t &) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block, std::align_val_t, const std::nothrow_t &) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

void operator delete(void *block, std::size_t, std::align_val_t) noexcept {
    k42mc_new::release(k42mc_new::object, block);
}

void operator delete[](void *block, std::size_t, std::align_val_t) noexcept {
    k42mc_new::release(k42mc_new::array, block);
}

#endif

#endif
