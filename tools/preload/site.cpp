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

struct NameChunk {
    std::atomic<size_t> used;
    alignas(SiteName) char room[(1u << 16) - alignof(SiteName)];
};

std::atomic<NameChunk *> current_chunk = nullptr;

// Names lie in memory mapped for them alone, out of the reach of whoever overruns a block. None is given back:
// records go by them. No lock, which a child of fork would find held for good. Null when memory runs out.
void *room_for_name(size_t size) {
    size = (size + alignof(SiteName) - 1) & -alignof(SiteName);
    for (NameChunk *chunk = current_chunk.load(std::memory_order_acquire);;) {
        if (chunk != nullptr) {
            size_t used = chunk->used.load(std::memory_order_relaxed);
            while (used + size <= sizeof chunk->room) {
                if (chunk->used.compare_exchange_weak(used, used + size, std::memory_order_relaxed))
                    return &chunk->room[used];
            }
        }
        auto *added = static_cast<NameChunk *>(platform::map_memory(sizeof(NameChunk)));
        if (added == nullptr)
            return nullptr;
        if (current_chunk.compare_exchange_strong(chunk, added))
            chunk = added;
        else // somebody else's, which is tried first
            platform::unmap_memory(added, sizeof(NameChunk));
    }
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
