// What is held, by the places that allocated it, for programs to read. The records are gone through with
// the checker's lock held; what was gathered is written without it.
#include "memcheck/control_lock.h"
#include "memcheck/json.h"
#include "memcheck/verify.h"
#include "platform/platform.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

namespace k42mc {
namespace {

constexpr const char *function_name = "k42mcx_report_json";

// An allocation site. Two are the same if all of this is.
struct Place {
    const char *file;
    int32_t line;
    uint16_t type;
    uint32_t frame_count;
    void *frames[MCAllocRec::most_frames];
};

struct Held {
    HTLink link;
    Place place; // the file's name is a copy
    uint64_t blocks, bytes, largest;
    uint32_t oldest; // the most reports that a block has seen
};

struct Damage {
    SLLink link;
    Place place;
    int defect;
    uintptr_t address;
    size_t size;
    uint32_t cycles;
};

uint32_t hash_place(const void *key) {
    const auto &place = *static_cast<const Place *>(key);
    uint64_t mixed = static_cast<uint32_t>(place.line) + (uint64_t{place.type} << 32);
    for (uint32_t i = 0; i < place.frame_count; ++i)
        mixed = (mixed ^ reinterpret_cast<uintptr_t>(place.frames[i])) * 0x9e3779b97f4a7c15u;
    return static_cast<uint32_t>(mixed >> 32);
}

int32_t compare_places(const void *a, const void *b) {
    const auto &x = *static_cast<const Place *>(a), &y = *static_cast<const Place *>(b);
    return x.line != y.line || x.type != y.type || x.frame_count != y.frame_count ||
           memcmp(x.frames, y.frames, x.frame_count * sizeof *x.frames) != 0 ||
           strcmp(x.file, y.file) != 0;
}

Place place_of(const MCAllocRec &record) {
    Place place = {record.key.file, record.key.line, record.key.type, record.frameCount, {}};
    memcpy(place.frames, record.frames, record.frameCount * sizeof *record.frames);
    return place;
}

// Releases what it holds with malloc's free: none of it is the checked allocator's.
template <class Element> void release(void *element) {
    free(const_cast<char *>(static_cast<Element *>(element)->place.file));
    free(element);
}

// Memory for an element, with a name of its own for its file.
template <class Element> Element *make(const Place &place) {
    auto *const element = static_cast<Element *>(calloc(1, sizeof(Element)));
    char *const file = element ? strdup(place.file) : nullptr;
    if (file == nullptr) {
        free(element);
        return nullptr;
    }
    element->place = place;
    element->place.file = file;
    return element;
}

// A report's content.
class Content {
public:
    Content() {
        HTInit(&sites, malloc, free, offsetof(Held, link), offsetof(Held, place), hash_place,
               compare_places, release<Held>);
        SLInit(&damaged, malloc, free, offsetof(Damage, link), release<Damage>);
    }
    ~Content() {
        if (sites)
            HTDeinit(&sites);
        if (damaged)
            SLDeinit(&damaged);
    }
    Content(const Content &) = delete;
    Content &operator=(const Content &) = delete;

    // With the lock held. Returns false when memory runs out.
    bool gather(uint32_t limit);
    // Without it.
    int write(int descriptor, uint32_t limit) const;

private:
    bool add(const MCAllocRec &record);
    void write_cycle(JsonWriter &out, uint32_t limit) const;

    HTTable *sites = nullptr;
    SLList *damaged = nullptr;
    uint32_t cycle = 0, damaged_count = 0;
    uint64_t allocated_blocks = 0, allocated_bytes = 0, freed_blocks = 0, freed_bytes = 0;
};

bool Content::add(const MCAllocRec &record) {
    const Place place = place_of(record);
    auto *held = static_cast<Held *>(HTSearch(sites, &place));
    if (held == nullptr) {
        held = make<Held>(place);
        if (held == nullptr)
            return false;
        HTInsert(sites, held, nullptr);
    }
    const uint64_t size = record.key.size;
    ++held->blocks;
    held->bytes += size;
    held->largest = held->largest > size ? held->largest : size;
    held->oldest = held->oldest > record.cycles ? held->oldest : record.cycles;
    if (const int defect = damage_of(record); defect != K42MC_DEFECT_NONE) {
        auto *const damage = make<Damage>(place);
        if (damage == nullptr)
            return false;
        damage->defect = defect;
        damage->address = record.address;
        damage->size = record.key.size;
        damage->cycles = record.cycles;
        SLInsertLast(damaged, damage);
        ++damaged_count;
    }
    return true;
}

bool Content::gather(uint32_t limit) {
    if (sites == nullptr || damaged == nullptr)
        return false;
    cycle = gMCCycle;
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
        allocated_blocks += gMCAllocSinceReset[type].count;
        allocated_bytes += gMCAllocSinceReset[type].bytes;
        freed_blocks += gMCFreeSinceReset[type].count;
        freed_bytes += gMCFreeSinceReset[type].bytes;
    }
    start_examination();
    for (const MCAllocRec &record : RecordList(gMCList))
        if (record.cycles >= limit && !add(record))
            return false;
    return true;
}

void write_blocks(JsonWriter &out, const char *name, uint64_t blocks, uint64_t bytes) {
    out.open_member(name);
    out.put("{");
    out.member("blocks", blocks);
    out.member("bytes", bytes);
    out.put("}");
}

void write_place(JsonWriter &out, const Place &place) {
    out.member("file", place.file);
    out.open_member("line");
    if (place.line < 0)
        out.put("-");
    out.put(place.line < 0 ? uint64_t{0} - static_cast<uint64_t>(place.line)
                           : static_cast<uint64_t>(place.line));
    out.member("type", gAllocatorType[place.type]);
}

void write_chain(JsonWriter &out, const Place &place) {
    out.open_member("chain");
    out.put("[");
    for (uint32_t i = 0; i < place.frame_count; ++i) {
        char text[4200];
        platform::module_place(place.frames[i], text, sizeof text);
        out.put(i ? "," : "");
        out.put_string(text);
    }
    out.put("]");
}

void Content::write_cycle(JsonWriter &out, uint32_t limit) const {
    out.put("{");
    out.member("kind", "cycle");
    out.member("program", platform::progname());
    out.member("pid", static_cast<uint64_t>(getpid()));
    out.member("time", static_cast<uint64_t>(time(nullptr)));
    out.member("width", 8 * sizeof(void *));
    out.member("cycle", cycle);
    out.member("limit", limit);
    out.member("blocks", allocated_blocks - freed_blocks);
    out.member("bytes", allocated_bytes - freed_bytes);
    write_blocks(out, "allocated", allocated_blocks, allocated_bytes);
    write_blocks(out, "freed", freed_blocks, freed_bytes);
    out.put("}\n");
}

void write_site(JsonWriter &out, const Held &held, uint32_t cycle) {
    out.put("{");
    out.member("kind", "site");
    out.member("cycle", cycle);
    write_place(out, held.place);
    write_chain(out, held.place);
    out.member("blocks", held.blocks);
    out.member("bytes", held.bytes);
    out.member("oldest", held.oldest);
    out.member("largest", held.largest);
    out.put("}\n");
}

void write_damage(JsonWriter &out, const Damage &damage, uint32_t cycle) {
    char address[2 + 2 * sizeof(uintptr_t) + 1];
    snprintf(address, sizeof address, "0x%" PRIXPTR, damage.address);
    out.put("{");
    out.member("kind", "damage");
    out.member("cycle", cycle);
    out.member("defect", k42mc_defect_desc[damage.defect]);
    write_place(out, damage.place);
    out.member("address", address);
    out.member("size", damage.size);
    out.member("cycles", damage.cycles);
    write_chain(out, damage.place);
    out.put("}\n");
}

// Most bytes first; the order of the rest is that of the places, so that reports can be compared.
int more_bytes(const void *a, const void *b) {
    const Held &x = **static_cast<Held *const *>(a), &y = **static_cast<Held *const *>(b);
    if (x.bytes != y.bytes)
        return x.bytes > y.bytes ? -1 : 1;
    if (const int order = strcmp(x.place.file, y.place.file))
        return order;
    if (x.place.line != y.place.line)
        return x.place.line < y.place.line ? -1 : 1;
    return memcmp(x.place.frames, y.place.frames, sizeof x.place.frames);
}

int Content::write(int descriptor, uint32_t limit) const {
    auto **const order = static_cast<const Held **>(malloc((sites->count + 1) * sizeof(Held *)));
    if (order == nullptr)
        return ENOMEM;
    const Held **end = order;
    HTVisitWithArg(
        sites,
        [](void *element, void *place) {
            *(*static_cast<const Held ***>(place))++ = static_cast<const Held *>(element);
            return int32_t{0};
        },
        &end);
    qsort(order, sites->count, sizeof *order, more_bytes);
    JsonWriter out(descriptor);
    write_cycle(out, limit);
    for (const Held **each = order; each != end; ++each)
        write_site(out, **each, cycle);
    for (void *each = SLFirst(damaged); each; each = SLNext(damaged, each))
        write_damage(out, *static_cast<const Damage *>(each), cycle);
    out.put("{");
    out.member("kind", "end");
    out.member("sites", sites->count);
    out.member("damaged", damaged_count);
    out.put("}\n");
    free(order);
    return out.finish();
}

// Returns an errno value.
int report(int descriptor, uint32_t limit) {
    if (fcntl(descriptor, F_GETFD) < 0)
        return EBADF;
    // What this allocates by libc is not the process's.
    const Printing printing;
    Content content;
    {
        const ControlLock lock(function_name);
        if (!lock)
            return EAGAIN;
        if (gMCTree == nullptr) {
            say_not_initialized(function_name);
            return EINVAL;
        }
        if (!content.gather(limit))
            return ENOMEM;
    }
    return content.write(descriptor, limit);
}

} // namespace
} // namespace k42mc

using namespace k42mc;

int k42mcx_report_json(int descriptor, unsigned limit) {
    const int error = report(descriptor, limit);
    if (error != 0)
        errno = error;
    return error != 0 ? -1 : 0;
}

K42MC_EXPORT(k42mcx_report_json);
