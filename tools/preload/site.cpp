#include "tools/preload/site.h"

#include "platform/platform.h"
#include "tools/preload/exported.h"
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

namespace platform = k42mc::internal::platform;

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

// Names lie in memory mapped for them alone, out of the reach of whoever overruns a block. None is given back:
// records go by them. Null when memory runs out.
void *room_for_name(size_t size) {
    constexpr size_t chunk_size = 1u << 16;
    static constinit pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    static constinit char *next = nullptr;
    static constinit size_t left = 0;
    size = (size + alignof(SiteName) - 1) & -alignof(SiteName);
    pthread_mutex_lock(&lock);
    if (left < size) {
        const size_t wanted = size < chunk_size ? chunk_size : size;
        next = static_cast<char *>(platform::map_memory(wanted));
        left = next != nullptr ? wanted : 0;
    }
    char *room = left != 0 ? next : nullptr;
    if (room != nullptr) {
        next += size;
        left -= size;
    }
    pthread_mutex_unlock(&lock);
    return room;
}

const char *short_name(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// What a call site is called now. Longer paths of modules are cut.
struct Description {
    explicit Description(const void *caller) : unloads_before(unloads.load()) {
        const char *module = "?";
        uintptr_t base = 0;
        dl_find_object object;
        if (_dl_find_object(const_cast<void *>(caller), &object) == 0) {
            const char *path = object.dlfo_link_map->l_name;
            module = *path != '\0' ? short_name(path) : program_name();
            base = reinterpret_cast<uintptr_t>(object.dlfo_map_start);
        }
        snprintf(text, sizeof text, "%.255s+0x%zx", module,
                 static_cast<size_t>(reinterpret_cast<uintptr_t>(caller) - base));
    }

    const uint32_t unloads_before;
    char text[300];
};

SiteName *make_name(const void *caller, const Description &description) {
    const size_t size = strlen(description.text) + 1;
    auto *name = static_cast<SiteName *>(room_for_name(sizeof(SiteName) + size));
    if (name == nullptr)
        return nullptr;
    name->caller = caller;
    name->unloads = description.unloads_before;
    memcpy(name->text, description.text, size);
    return name;
}

// The name for a slot that has none for the caller, or one from before a module was unloaded. Null when
// another caller's has come to be there meanwhile.
const char *renew(std::atomic<SiteName *> &slot, SiteName *known, const void *caller) {
    const Description description(caller);
    if (known != nullptr && strcmp(known->text, description.text) == 0) {
        known->unloads = description.unloads_before;
        return known->text;
    }
    SiteName *own = make_name(caller, description);
    if (own == nullptr)
        return known != nullptr ? known->text : nameless;
    if (slot.compare_exchange_strong(known, own))
        return own->text;
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
