// Nothing that is found here is more than a guess where nobody says for sure: then the place is unknown.
#include "platform/module.h"
#include "platform/platform.h"
#include "platform/stack.h"

#include <cerrno>

#include <link.h>
#include <sys/mman.h>

namespace k42mc::internal::platform {
namespace {

// What cannot be read may be protected. A sandbox may refuse the call, which says nothing; a healthy process
// never comes to it.
bool is_unmapped(uintptr_t address) {
    if (readable(reinterpret_cast<const void *>(address), 1))
        return false;
    unsigned char resident;
    const uintptr_t page = address & -page_size();
    return mincore(reinterpret_cast<void *>(page), 1, &resident) != 0 && errno == ENOMEM;
}

// The loader has allocated out of its last page before there was another allocator. Others may do so as long
// as they look for the functions that they stand in front of; but the C library itself does not.
bool may_hand_out(const Module &module) {
    if (module.base == _r_debug.r_ldbase)
        return true;
    return (defines(module, "free") || defines(module, "_ZdlPv")) &&
           !defines(module, "__libc_start_main");
}

Place find_place(uintptr_t address) {
    if (is_on_own_stack(address))
        return Place::this_stack;
    if (is_on_first_stack(address))
        return Place::first_stack;
    Module module;
    uintptr_t path;
    if (find_module(address, module, path) && has_segment_at(module, address))
        return may_hand_out(module) ? Place::allocators_module : Place::module;
    return is_unmapped(address) ? Place::nothing : Place::unknown;
}

} // namespace

Place place_of(const void *address) {
    const int kept_errno = errno;
    const Place place = find_place(reinterpret_cast<uintptr_t>(address));
    errno = kept_errno;
    return place;
}

} // namespace k42mc::internal::platform
