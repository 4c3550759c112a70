#include "fdcheck/lock.h"

namespace k42mc::internal {
namespace {

// Null where no open is left in the history.
const FDEvent *last_open(const FDInfo &info) {
    const FDEvent *found = nullptr;
    if (info.events != nullptr)
        for (const FDEvent &event : EventList(info.events))
            if (event.type == FD_EV_OPEN)
                found = &event;
    return found;
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_fd_opener(int descriptor, FDEvent *event) {
    const RecordLock lock;
    if (!lock || gFDITable == nullptr || descriptor < 0 || descriptor >= fd_table_size())
        return 0;
    const FDEvent *const open = last_open(gFDITable[descriptor]);
    if (open == nullptr)
        return 0;
    *event = *open;
    event->link = {};
    return 1;
}

K42MC_EXPORT(k42mcx_fd_opener);
