#include "site.h"

#include "libc.h"

#include <atomic>
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

struct SiteName {
    const void *caller;
    char text[];
};

// Call sites of even the largest programs fill a part of it; those that find no room share a name.
constexpr size_t slots = 1u << 16;
constexpr size_t most_probes = 64;
std::atomic<const SiteName *> names[slots];

size_t slot_of(const void *caller) {
    constexpr uint64_t golden = 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(reinterpret_cast<uintptr_t>(caller) * golden >> 48) % slots;
}

const char *short_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

const SiteName *make_name(const void *caller) {
    const char *module = "?";
    uintptr_t base = 0;
    dl_find_object object;
    if (_dl_find_object(const_cast<void *>(caller), &object) == 0) {
        const char *path = object.dlfo_link_map->l_name;
        module = *path != '\0' ? short_name(path) : program_invocation_short_name;
        base = reinterpret_cast<uintptr_t>(object.dlfo_map_start);
    }
    constexpr size_t room_for_offset = 24;
    const size_t size = strlen(module) + room_for_offset;
    auto *name = static_cast<SiteName *>(__libc_malloc(sizeof(SiteName) + size));
    if (name == nullptr)
        return nullptr;
    name->caller = caller;
    snprintf(name->text, size, "%s+0x%zx", module,
             static_cast<size_t>(reinterpret_cast<uintptr_t>(caller) - base));
    return name;
}

} // namespace

const char *site_of(const void *caller) {
    constexpr const char *nameless = "(elsewhere)";
    const size_t first = slot_of(caller);
    for (size_t probe = 0; probe < most_probes; ++probe) {
        auto &slot = names[(first + probe) % slots];
        const SiteName *name = slot.load(std::memory_order_acquire);
        if (name == nullptr) {
            const SiteName *own = make_name(caller);
            if (own == nullptr)
                return nameless;
            if (slot.compare_exchange_strong(name, own, std::memory_order_acq_rel))
                return own->text;
            __libc_free(const_cast<SiteName *>(own));
        }
        if (name->caller == caller)
            return name->text;
    }
    return nameless;
}
