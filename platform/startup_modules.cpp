// The loader's list begins with the modules loaded with the program, each behind one that needs it, and
// goes on with those loaded later. So the first part is found by following needs, without a look at a
// module that another thread may be unloading: the loader itself belongs to it with all that stand
// before, and so does the next one behind as long as it is what a module before asked for by this name.
#include "platform/startup_modules.h"

#include <atomic>
#include <cstdint>

namespace k42mc::internal::platform {
namespace {

constinit std::atomic<const link_map *> gLastStartupModule = nullptr;

bool same_text(const char *a, const char *b) {
    while (*a && *a == *b)
        ++a, ++b;
    return *a == *b;
}

const char *file_name(const char *path) {
    const char *name = path;
    for (; *path; ++path)
        if (*path == '/')
            name = path + 1;
    return name;
}

bool needs(const link_map *module, const char *name) {
    const char *strings = nullptr;
    for (const ElfW(Dyn) *entry = module->l_ld; entry->d_tag != DT_NULL; ++entry)
        if (entry->d_tag == DT_STRTAB)
            strings = reinterpret_cast<const char *>(entry->d_un.d_ptr);
    // Where the loader has not made the address absolute, in the vDSO, nothing is needed.
    if (reinterpret_cast<uintptr_t>(strings) <= module->l_addr)
        return false;
    for (const ElfW(Dyn) *entry = module->l_ld; entry->d_tag != DT_NULL; ++entry)
        if (entry->d_tag == DT_NEEDED && same_text(file_name(strings + entry->d_un.d_val), name))
            return true;
    return false;
}

bool is_needed(const link_map *module, const link_map *last) {
    const char *const name = file_name(module->l_name);
    for (const link_map *each = _r_debug.r_map; each; each = each->l_next) {
        if (needs(each, name))
            return true;
        if (each == last)
            break;
    }
    return false;
}

const link_map *find_last() {
    const link_map *last = _r_debug.r_map;
    while (last && last->l_addr != _r_debug.r_ldbase)
        last = last->l_next;
    while (last && last->l_next && is_needed(last->l_next, last))
        last = last->l_next;
    return last;
}

} // namespace

bool is_startup_module(const link_map *module) {
    const link_map *last = gLastStartupModule.load(std::memory_order_relaxed);
    if (!last)
        gLastStartupModule.store(last = find_last(), std::memory_order_relaxed);
    for (const link_map *each = last ? _r_debug.r_map : nullptr; each; each = each->l_next) {
        if (each == module)
            return true;
        if (each == last)
            break;
    }
    return false;
}

} // namespace k42mc::internal::platform
