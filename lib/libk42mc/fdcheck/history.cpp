// Recording: one event into the bounded history of its descriptor.
#include "base/errno_keeper.h"
#include "base/text_output.h"
#include "fdcheck/lock.h"
#include "platform/platform.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

namespace k42mc::internal {
namespace {

constexpr const char *function_name = "FDAddEvent";

// Opens and closes after which a history stops growing.
constexpr uint32_t most_events = 10;

// Opens and closes that the standard descriptors are used to.
constexpr uint32_t most_standard_events = 3;

// The text stands in gFDDebugStr.
void say_error() {
    const Printing printing;
    StandardErrorText()->put(gFDDebugStr);
}

int32_t fail(int32_t descriptor, const char *what) {
    snprintf(gFDDebugStr, sizeof gFDDebugStr, "%s: fdi(%d) %s\n", function_name, descriptor, what);
    say_error();
    return DS_FAILURE;
}

int32_t fail_without_table() {
    snprintf(gFDDebugStr, sizeof gFDDebugStr, "%s: gFDITable calloc failure!\n", function_name);
    say_error();
    return DS_FAILURE;
}

void FDFreeEvent(void *event) {
    free(event);
}

bool is_alarming(const FDInfo &info, int32_t descriptor, uint32_t type) {
    const FDEvent *newest = EventList(info.events).last();
    if (newest == nullptr)
        return false;
    return (type == FD_EV_CLOSE && newest->type == FD_EV_CLOSE) ||
           (descriptor <= 2 && info.opens + info.closes > most_standard_events);
}

void fill(FDEvent &event, const char *name, uint32_t type) {
    snprintf(event.name, sizeof event.name, "%s", name != nullptr ? name : "UNKNOWN");
    const platform::LocalTime now = platform::local_time(time(nullptr));
    snprintf(event.time, sizeof event.time, "%d/%d %d:%d:%d", now.month, now.day, now.hour, now.minute,
             now.second);
    event.type = type;
    event.frameCount = 0;
    if (gFDNoBacktrace == 0)
        event.frameCount = static_cast<uint32_t>(platform::backtrace_skip(event.frames, FD_MOST_FRAMES));
}

// Takes the last event of this type since the last open or close out of the history. Null if there is
// none.
FDEvent *take_last_use(EventList events, uint32_t type) {
    bool found = false;
    FDEvent *ahead = nullptr; // of the one found
    FDEvent *previous = nullptr;
    for (FDEvent &event : events) {
        if (event.type == type) {
            found = true;
            ahead = previous;
        } else if (event.type <= FD_EV_CLOSE) {
            found = false;
        }
        previous = &event;
    }
    if (!found)
        return nullptr;
    return ahead != nullptr ? events.remove_next(*ahead) : events.remove_first();
}

} // namespace

int32_t fd_add_event(const char *name, int32_t descriptor, uint32_t type) {
    const ErrnoKeeper errno_keeper;
    if (descriptor < 0 || descriptor >= fd_table_size() || type >= FD_EVENT_TYPES)
        return DS_FAILURE;
    FDInfo *const table = fd_table();
    if (table == nullptr)
        return fail_without_table();

    FDInfo &info = table[descriptor];
    info.opens += type == FD_EV_OPEN;
    info.closes += type == FD_EV_CLOSE;
    if (info.alarms != 0)
        return DS_OK;
    if (info.events == nullptr) {
        ++thread_keeps_blocks; // whoever was the first to use the descriptor, this is no block of theirs
        const int32_t made =
            SLInit(&info.events, nullptr, nullptr, offsetof(FDEvent, link), FDFreeEvent);
        --thread_keeps_blocks;
        if (made != DS_OK)
            return fail(descriptor, "SLInit failure!");
    } else if (is_alarming(info, descriptor, type)) {
        ++info.alarms;
    }

    FDEvent *event;
    if (info.opens + info.closes > most_events) {
        event = EventList(info.events).remove_first();
        if (event == nullptr)
            return fail(descriptor, "data structures inconsistent!");
    } else {
        event = static_cast<FDEvent *>(malloc(sizeof *event));
        if (event == nullptr)
            return fail(descriptor, "malloc failure!");
    }
    SLInsertLast(info.events, event); // past the template, where the analyzer loses sight of it
    fill(*event, name, type);
    return DS_OK;
}

void fd_record_use(const char *name, int32_t descriptor, uint32_t type) {
    SLList *const events = fd_growing_history(descriptor);
    FDEvent *const last = events != nullptr ? take_last_use(EventList(events), type) : nullptr;
    if (last == nullptr) {
        fd_add_event(name, descriptor, type);
        return;
    }
    const ErrnoKeeper errno_keeper;
    EventList(events).insert_last(*last);
    fill(*last, name, type);
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int32_t FDAddEvent(const char *name, int32_t descriptor, uint32_t type) {
    const ErrnoKeeper errno_keeper;
    platform::note_utc_offset();
    return fd_add_event(name, descriptor, type);
}

int k42mcx_fd_event(const char *name, int descriptor, unsigned type) {
    const RecordLock lock;
    return lock ? fd_add_event(name, descriptor, type) : DS_FAILURE;
}

void FDOpen(const char *name, int32_t descriptor) {
    k42mcx_fd_event(name, descriptor, FD_EV_OPEN);
}

void FDClose(const char *name, int32_t descriptor) {
    k42mcx_fd_event(name, descriptor, FD_EV_CLOSE);
}

K42MC_EXPORT(FDAddEvent);
K42MC_EXPORT(FDOpen);
K42MC_EXPORT(FDClose);
K42MC_EXPORT(k42mcx_fd_event);
