#include "tools/preload/site.h"

#include "tools/preload/exported.h"
#include "tools/preload/libc.h"
#include "tools/preload/next.h"
#include "tools/preload/report_files.h"

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
    std::atomic<uint32_t> unloads; // how many there had been when the name was found to be right
    char text[];
};

// Another module may have taken the place of one that was unloaded.
std::atomic<uint32_t> unloads = 0;

// Call sites of even the largest programs fill a part of it; those that find no room share a name.
constexpr size_t slots = 1u << 16;
constexpr size_t most_probes = 64;
constexpr const char *nameless = "(elsewhere)";
std::atomic<SiteName *> names[slots];

size_t slot_of(const void *caller) {
    constexpr uint64_t golden = 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(reinterpret_cast<uintptr_t>(caller) * golden >> 48) % slots;
}

const char *short_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

SiteName *make_name(const void *caller) {
    const uint32_t unloads_before = unloads.load();
    const char *module = "?";
    uintptr_t base = 0;
    dl_find_object object;
    if (_dl_find_object(const_cast<void *>(caller), &object) == 0) {
        const char *path = object.dlfo_link_map->l_name;
        module = *path != '\0' ? short_name(path) : program_name();
        base = reinterpret_cast<uintptr_t>(object.dlfo_map_start);
    }
    constexpr size_t room_for_offset = 24;
    const size_t size = strlen(module) + room_for_offset;
    auto *name = static_cast<SiteName *>(__libc_malloc(sizeof(SiteName) + size));
    if (name == nullptr)
        return nullptr;
    name->caller = caller;
    name->unloads = unloads_before;
    snprintf(name->text, size, "%s+0x%zx", module,
             static_cast<size_t>(reinterpret_cast<uintptr_t>(caller) - base));
    return name;
}

// The name for a slot that has none for the caller, or one from before a module was unloaded. Null when
// another caller's has come to be there meanwhile.
const char *renew(std::atomic<SiteName *> &slot, SiteName *known, const void *caller) {
    SiteName *own = make_name(caller);
    if (own == nullptr)
        return known != nullptr ? known->text : nameless;
    if (known != nullptr && strcmp(known->text, own->text) == 0)
        known->unloads = own->unloads.load();
    else if (slot.compare_exchange_strong(known, own))
        return own->text; // what records go by stays for good
    __libc_free(own);
    // cppcheck-suppress nullPointerRedundantCheck ; a name that came between is one
    return known->caller == caller ? known->text : nullptr;
}

} // namespace

const char *site_of(const void *caller) {
    const size_t first = slot_of(caller);
    for (size_t probe = 0; probe < most_probes; ++probe) {
        auto &slot = names[(first + probe) % slots];
        SiteName *name = slot.load(std::memory_order_acquire);
        if (name != nullptr && name->caller != caller)
            continue;
        if (name != nullptr && name->unloads == unloads.load(std::memory_order_relaxed))
            return name->text;
        if (const char *text = renew(slot, name, caller))
            return text;
    }
    return nameless;
}

extern "C" EXPORTED int dlclose(void *module) noexcept {
    const int result = NEXT(dlclose)(module);
    ++unloads;
    return result;
}
