// The histories as JSON, an object a line. Each is copied with gFDLock held, and written without.
#include "base/json_output.h"
#include "base/locks.h"
#include "base/printing.h"
#include "base/sequence.h"
#include "fdcheck/state.h"

#include <errno.h>
#include <fcntl.h>

namespace k42mc::internal {
namespace {

struct History {
    FDInfo counted{};
    Sequence<FDEvent> events;
};

// Returns false when memory runs out.
bool copy_history(int32_t descriptor, History &history) {
    history.counted = gFDITable[descriptor];
    history.events.size = 0;
    SLList *const events = history.counted.events;
    if (events == nullptr)
        return true;
    for (const FDEvent &event : EventList(events)) {
        FDEvent *copy = history.events.add();
        if (copy == nullptr)
            return false;
        *copy = event;
    }
    return true;
}

void put_event(JsonOutput &out, const FDEvent &event) {
    out->print("{\"type\":\"%s\",\"operator\":", gFDEventType[event.type]);
    out.string(event.name);
    out->print(",\"time\":\"%s\",", event.time);
    out.chain("chain", {event.frames, event.frameCount});
    out->print("}");
}

void put_history(JsonOutput &out, int32_t descriptor, const History &history) {
    // Each line may be the first: nothing says where a report begins.
    out->print("{\"format\":%u,\"kind\":\"descriptor\",\"descriptor\":%d,\"open\":%s,\"alarms\":%u,"
               "\"opens\":%u,\"closes\":%u,\"events\":[",
               JsonOutput::version, descriptor, fcntl(descriptor, F_GETFD) != -1 ? "true" : "false",
               history.counted.alarms, history.counted.opens, history.counted.closes);
    for (size_t i = 0; i < history.events.size; ++i) {
        if (i > 0)
            out->print(",");
        put_event(out, history.events.records[i]);
    }
    out->print("]}\n");
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_fd_report_json(int fd) {
    if (fcntl(fd, F_GETFD) < 0)
        return -1;
    const Printing printing;
    JsonOutput out(fd);
    History history;
    bool more = true;
    for (int32_t descriptor = 0; more; ++descriptor) {
        lock(gFDLock, LockRank::descriptors);
        more = gFDITable != nullptr && descriptor < fd_table_size();
        const bool copied = !more || copy_history(descriptor, history);
        unlock(gFDLock, LockRank::descriptors);
        if (!copied) {
            errno = ENOMEM;
            return -1;
        }
        if (more && history.counted.events != nullptr)
            put_history(out, descriptor, history);
    }
    const int failure = out->flush();
    if (failure == 0)
        return 0;
    errno = failure;
    return -1;
}

K42MC_EXPORT(k42mcx_fd_report_json);
