// What has been recorded, on standard error.
#include "base/fork.h"
#include "base/locks.h"
#include "base/text_output.h"
#include "fdcheck/state.h"

namespace k42mc::internal {
namespace {

constexpr int entries_per_line = 8;

// gFDLock for a function that prints what has been recorded.
class HistoryLock {
public:
    HistoryLock() {
        hook_fork();
        lock(gFDLock, LockRank::descriptors);
    }
    ~HistoryLock() { unlock(gFDLock, LockRank::descriptors); }
    HistoryLock(const HistoryLock &) = delete;
    HistoryLock &operator=(const HistoryLock &) = delete;

private:
    const Printing printing_;
};

bool is_shut_down(const char *function) {
    if (!fd_deinitialized())
        return false;
    StandardErrorText()->print("%s: Already deinitialized\n", function);
    return true;
}

bool is_running(TextOutput &out, const char *function) {
    if (gFDITable != nullptr)
        return true;
    out.print("%s: FD Checker Not initialized yet!", function);
    return false;
}

void print_event(TextOutput &out, const FDEvent &event) {
    out.print("%s by %s at [%s]\n-----\nBacktrace:\n", gFDEventType[event.type], event.name, event.time);
    if (event.frameCount != 0)
        out.symbols({event.frames, event.frameCount});
    else
        out.put("Not available\n");
    out.put("------\n");
}

void print_history(TextOutput &out, int32_t descriptor, const FDInfo &info) {
    if (info.alarms != 0)
        out.put("Alarm(s) present! Events history frozen at the first alarm.\n");
    out.print("Events for fd(%d)\n=========\n", descriptor);
    for (const FDEvent &event : EventList(info.events))
        print_event(out, event);
    out.print("Summary for fd(%d)\n=========\n", descriptor);
    out.print("Alarms(%u), Opens(%u), Closes(%u)\n", info.alarms, info.opens, info.closes);
    out.put("=================================\n");
}

bool selects(uint32_t scheme, const FDInfo &info, const FDEvent &newest) {
    switch (scheme) {
    case FD_REPORT_MULTIPLE:
        return info.opens + info.closes >= 2;
    case FD_REPORT_ALARMING:
        return info.alarms != 0;
    case FD_REPORT_ALL_OPEN:
        return info.alarms == 0 && newest.type == FD_EV_OPEN;
    case FD_REPORT_ALL_CLOSED:
        return info.alarms == 0 && newest.type == FD_EV_CLOSE;
    default:
        return true;
    }
}

// Tells apart what the scheme does not.
const char *marker(uint32_t scheme, const FDInfo &info, const FDEvent &newest) {
    if (scheme != FD_REPORT_ALL_USED && scheme != FD_REPORT_MULTIPLE)
        return "";
    if (info.alarms != 0)
        return "*";
    return newest.type == FD_EV_CLOSE ? "-" : "";
}

void say_empty(TextOutput &out, const char *function, int32_t descriptor) {
    snprintf(gFDDebugStr, sizeof gFDDebugStr, "%s: fdi(%d) empty list!\n", function, descriptor);
    out.put(gFDDebugStr);
}

} // namespace
} // namespace k42mc::internal

using namespace k42mc::internal;

void FDCheck(int32_t descriptor) {
    static constexpr const char *name = "FDCheck";
    if (is_shut_down(name))
        return;
    descriptor = static_cast<int32_t>(__builtin_bswap32(static_cast<uint32_t>(descriptor)));
    const HistoryLock lock;
    StandardErrorText out;
    if (!is_running(*out, name))
        return;
    if (descriptor < 0 || descriptor >= fd_table_size())
        out->print("%s: fd(%d) out of range!", name, descriptor);
    else if (gFDITable[descriptor].events == nullptr)
        out->print("%s: fd(%d) unknown\n", name, descriptor);
    else
        print_history(*out, descriptor, gFDITable[descriptor]);
}

void FDReport(uint32_t scheme) {
    static constexpr const char *name = "FDReport";
    if (is_shut_down(name))
        return;
    scheme = __builtin_bswap32(scheme);
    if (scheme >= FD_REPORT_SCHEMES) {
        StandardErrorText()->print("%s: invalid argument\n", name);
        return;
    }
    const HistoryLock lock;
    StandardErrorText out;
    if (!is_running(*out, name))
        return;
    out->print("Showing the last operator for %s\n---\n", gFDReportScheme[scheme]);
    int reported = 0;
    const int32_t size = fd_table_size();
    for (int32_t descriptor = 0; descriptor < size; ++descriptor) {
        const FDInfo &info = gFDITable[descriptor];
        if (info.events == nullptr)
            continue;
        const FDEvent *newest = EventList(info.events).last();
        if (newest == nullptr) {
            say_empty(*out, name, descriptor);
        } else if (selects(scheme, info, *newest)) {
            ++reported;
            out->print("%s%d(%s) %s", marker(scheme, info, *newest), descriptor, newest->name,
                       reported % entries_per_line == 0 ? "\n" : "");
        }
    }
    out->print("\n---\nNumber of fds reported: %d\n--------------\n", reported);
}

K42MC_EXPORT(FDCheck);
K42MC_EXPORT(FDReport);
