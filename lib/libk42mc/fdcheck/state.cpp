#include "fdcheck/state.h"

#include "base/fork.h"
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <stdlib.h>

constinit FDInfo *gFDITable = nullptr;
constinit int gFDNoBacktrace = 0;
constinit char gFDDebugStr[1024] = {};
constexpr const char *const gFDEventType[FD_EVENT_TYPES] = {"OPEN", "CLOSE", "READ", "WRITE"};
constexpr const char *const gFDReportScheme[FD_REPORT_SCHEMES] = {
    "all used fds", "fds with multiple events", "fds with alarming events", "all open fds",
    "all closed fds"};

namespace k42mc::internal {

constinit pthread_mutex_t gFDLock = PTHREAD_MUTEX_INITIALIZER;
constinit thread_local bool thread_is_recording = false;

namespace {

// Containers often run with a limit of a billion; nobody uses numbers that high.
constexpr uint64_t most_records = 1 << 20;

constinit bool gFDDeinitialized = false;
constinit int32_t gFDITableSize = 0; // as it was created: the limit may change later

} // namespace

bool fd_deinitialized() {
    return std::atomic_ref(gFDDeinitialized).load(std::memory_order_relaxed);
}

int32_t fd_table_size() {
    if (gFDITable != nullptr)
        return gFDITableSize;
    return static_cast<int32_t>(std::min(platform::descriptor_limit(), most_records));
}

SLList *fd_growing_history(int32_t descriptor) {
    if (gFDITable == nullptr || descriptor < 0 || descriptor >= fd_table_size())
        return nullptr;
    const FDInfo &info = gFDITable[descriptor];
    return info.alarms == 0 ? info.events : nullptr;
}

FDInfo *fd_table() {
    if (gFDITable == nullptr) {
        hook_fork();
        const int32_t size = fd_table_size();
        gFDITable = static_cast<FDInfo *>(calloc(static_cast<size_t>(size), sizeof(FDInfo)));
        gFDITableSize = size;
    }
    return gFDITable;
}

} // namespace k42mc::internal

using namespace k42mc::internal;

void FDDeinit() {
    if (fd_deinitialized())
        return;
    gFDITable = nullptr;
    gFDLock = PTHREAD_MUTEX_INITIALIZER;
    std::atomic_ref(gFDDeinitialized).store(true, std::memory_order_relaxed);
}

K42MC_EXPORT(FDDeinit);
