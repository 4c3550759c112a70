// What has been recorded, on standard error.
#include "base/terminal.h"
#include "fdcheck/state.h"
#include "platform/platform.h"

namespace k42mc::internal {
namespace {

constexpr int entries_per_line = 8;

class HistoryLock {
public:
    HistoryLock() { pthread_mutex_lock(&gFDLock); }
    ~HistoryLock() { pthread_mutex_unlock(&gFDLock); }
    HistoryLock(const HistoryLock &) = delete;
    HistoryLock &operator=(const HistoryLock &) = delete;

private:
    const TerminalLock terminal_;
};

bool is_shut_down(const char *function) {
    if (!fd_deinitialized())
        return false;
    fprintf(stderr, "%s: Already deinitialized\n", function);
    return true;
}

bool is_running(const char *function) {
    if (gFDITable != nullptr)
        return true;
    fprintf(stderr, "%s: FD Checker Not initialized yet!", function);
    return false;
}

void FDPrintEvent(void *element) {
    const auto &event = *static_cast<const FDEvent *>(element);
    fprintf(stderr, "%s by %s at [%s]\n-----\nBacktrace:\n", gFDEventType[event.type], event.name,
            event.time);
    fflush(stderr);
    if (event.frameCount != 0)
        platform::backtrace_symbols_fd(event.frames, static_cast<int>(event.frameCount), fileno(stderr));
    else
        fputs("Not available\n", stderr);
    fputs("------\n", stderr);
}

void print_history(int32_t descriptor, const FDInfo &info) {
    if (info.alarms != 0)
        fputs("Alarm(s) present! Events history frozen at the first alarm.\n", stderr);
    fprintf(stderr, "Events for fd(%d)\n=========\n", descriptor);
    SLVisit(info.events, FDPrintEvent);
    fprintf(stderr, "Summary for fd(%d)\n=========\n", descriptor);
    fprintf(stderr, "Alarms(%u), Opens(%u), Closes(%u)\n", info.alarms, info.opens, info.closes);
    fputs("=================================\n", stderr);
    fflush(stderr);
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

void say_empty(const char *function, int32_t descriptor) {
    snprintf(gFDDebugStr, sizeof gFDDebugStr, "%s: fdi(%d) empty list!\n", function, descriptor);
    fputs(gFDDebugStr, stderr);
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
    if (!is_running(name))
        return;
    if (descriptor < 0 || descriptor >= fd_table_size())
        fprintf(stderr, "%s: fd(%d) out of range!", name, descriptor);
    else if (gFDITable[descriptor].events == nullptr)
        fprintf(stderr, "%s: fd(%d) unknown\n", name, descriptor);
    else
        print_history(descriptor, gFDITable[descriptor]);
}

void FDReport(uint32_t scheme) {
    static constexpr const char *name = "FDReport";
    if (is_shut_down(name))
        return;
    scheme = __builtin_bswap32(scheme);
    if (scheme >= FD_REPORT_SCHEMES) {
        fprintf(stderr, "%s: invalid argument\n", name);
        return;
    }
    const HistoryLock lock;
    if (!is_running(name))
        return;
    fprintf(stderr, "Showing the last operator for %s\n---\n", gFDReportScheme[scheme]);
    int reported = 0;
    const int32_t size = fd_table_size();
    for (int32_t descriptor = 0; descriptor < size; ++descriptor) {
        const FDInfo &info = gFDITable[descriptor];
        if (info.events == nullptr)
            continue;
        const auto *newest = static_cast<const FDEvent *>(SLLast(info.events));
        if (newest == nullptr) {
            say_empty(name, descriptor);
        } else if (selects(scheme, info, *newest)) {
            ++reported;
            fprintf(stderr, "%s%d(%s) %s", marker(scheme, info, *newest), descriptor, newest->name,
                    reported % entries_per_line == 0 ? "\n" : "");
        }
    }
    fprintf(stderr, "\n---\nNumber of fds reported: %d\n--------------\n", reported);
    fflush(stderr);
}

K42MC_EXPORT(FDCheck);
K42MC_EXPORT(FDReport);
