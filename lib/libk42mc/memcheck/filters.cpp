#include "memcheck/filters.h"

#include "memcheck/control_lock.h"
#include "memcheck/registry.h"

#include <algorithm>
#include <stdlib.h>
#include <string.h>

namespace k42mc::internal {
namespace {

bool holds(SLList *list, const MCFilterKey &key) {
    return std::ranges::any_of(FilterList(list),
                               [&](const MCBTFilter &filter) { return MCFilterMatch(filter.key, key); });
}

// The fields of a filter's text that count; null where the text ends too early.
struct FilterFields {
    const char *file;
    const char *line;
    const char *type;
    const char *size;
};

FilterFields split(char *text) {
    char *rest = nullptr;
    const auto next = [&rest](char *from) { return strtok_r(from, ":", &rest); };
    FilterFields fields{};
    fields.file = next(text);
    fields.line = next(nullptr);
    next(nullptr); // the tag of a report line
    fields.type = next(nullptr);
    next(nullptr); // the address
    fields.size = next(nullptr);
    return fields;
}

int type_named(const char *name) {
    for (int type = 0; type < MC_ALLOCATOR_TYPES; ++type) {
        if (strcmp(gAllocatorType[type], name) == 0)
            return type;
    }
    return -1;
}

// A filter from its text, or null.
MCBTFilter *create_filter(char *text) {
    auto *filter = static_cast<MCBTFilter *>(malloc(sizeof(MCBTFilter)));
    if (filter == nullptr)
        return nullptr;
    char *file = nullptr;
    const FilterFields fields = text != nullptr ? split(text) : FilterFields{};
    const int type = fields.size != nullptr ? type_named(fields.type) : -1;
    if (type >= 0)
        file = strdup(fields.file);
    if (file == nullptr) {
        free(filter);
        return nullptr;
    }
    // Wider than atoi, for sizes past 2^31.
    filter->key = {.line = static_cast<int32_t>(strtoll(fields.line, nullptr, 10)),
                   .size = static_cast<size_t>(strtoll(fields.size, nullptr, 10)),
                   .type = static_cast<uint16_t>(type),
                   .file = file};
    return filter;
}

void cancel(SLList *list, const MCFilterKey &key) {
    const FilterList filters(list);
    MCBTFilter *previous = nullptr;
    for (MCBTFilter &filter : filters) {
        if (MCFilterMatch(filter.key, key)) {
            if (previous == nullptr)
                SLRemoveAndDestroyFirst(list);
            else
                SLRemoveAndDestroyNext(list, previous);
            return;
        }
        previous = &filter;
    }
}

void add(SLList *list, MCBTFilter *filter, const char *function) {
    if (holds(list, filter->key)) {
        StandardErrorText()->print("%s: ERROR: filter alredy present\n", function);
        MCFilterRelease(filter);
    } else {
        FilterList(list).insert_first(*filter);
    }
}

} // namespace

bool MCFilterMatch(const MCFilterKey &a, const MCFilterKey &b) {
    return a.line == b.line && a.size == b.size && a.type == b.type && strcmp(a.file, b.file) == 0;
}

void MCFilterRelease(void *element) {
    auto *filter = static_cast<MCBTFilter *>(element);
    free(const_cast<char *>(filter->key.file));
    free(filter);
}

bool wants_backtrace(const MCFilterKey &key) {
    return traces_off_by_default() ? holds(gMCFilterIn, key) : !holds(gMCFilterOut, key);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int MCBTFilterSet(char *text, int in) {
    static constexpr const char *name = "MCBTFilterSet";
    const ControlLock lock(name);
    if (!lock)
        return -1;
    if (!registry_exists()) {
        say_not_initialized(name);
        return -1;
    }
    MCBTFilter *filter = create_filter(text);
    if (filter == nullptr) {
        StandardErrorText()->print("%s: ERROR: failed to create filter\n", name);
        return -1;
    }
    // A filter belongs to the list that departs from the default; the opposite call only cancels it.
    cancel(in ? gMCFilterOut : gMCFilterIn, filter->key);
    if (traces_off_by_default() == (in != 0))
        add(in ? gMCFilterIn : gMCFilterOut, filter, name);
    else
        MCFilterRelease(filter);
    return 0;
}

int MCBTFilterIn(char *text) {
    return MCBTFilterSet(text, 1);
}

int MCBTFilterOut(char *text) {
    return MCBTFilterSet(text, 0);
}

void MCBTFilterReset() {
    static constexpr const char *name = "MCBTFilterReset";
    const ControlLock lock(name);
    if (!lock)
        return;
    if (!registry_exists()) {
        say_not_initialized(name);
        return;
    }
    SLDestroy(gMCFilterIn);
    SLDestroy(gMCFilterOut);
}

K42MC_EXPORT(MCBTFilterSet);
K42MC_EXPORT(MCBTFilterIn);
K42MC_EXPORT(MCBTFilterOut);
K42MC_EXPORT(MCBTFilterReset);
