#include "memcheck/report_signal.h"

#include "memcheck/report.h"

#include "base/errno_keeper.h"
#include "base/fork.h"
#include "base/printing.h"
#include "linkage/linkage.h"
#include "platform/platform.h"

#include <atomic>
#include <semaphore.h>
#include <signal.h>

namespace k42mc::internal {
namespace {

struct Request {
    std::atomic<bool> waiting;
    std::atomic<uint32_t> limit;
};

constinit Request requests[NSIG] = {};
constinit std::atomic<bool> started = false;
constinit sem_t arrivals = {}; // all zeroes is what sem_init makes of a private one at 0

void handle(int signo) {
    const ErrnoKeeper errno_keeper;
    if (started && !requests[signo].waiting.exchange(true))
        sem_post(&arrivals);
}

void *report_on_arrivals(void *) {
    for (;;) {
        while (sem_wait(&arrivals) != 0) {
        }
        for (Request &request : requests) {
            if (request.waiting.exchange(false))
                report(request.limit);
        }
    }
}

int start_with_signals_blocked() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    pthread_t thread;
    const int failure = pthread_create(&thread, &attributes, report_on_arrivals, nullptr);
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    pthread_attr_destroy(&attributes);
    return failure;
}

// What it allocates is no block of the process's.
int start_thread() {
    if (started.exchange(true))
        return 0;
    const Printing printing;
    platform::stay_loaded();
    const int failure = start_with_signals_blocked();
    if (failure != 0)
        started = false;
    return failure;
}

} // namespace

void leave_signals_to_parent() {
    started = false;
    sem_init(&arrivals, 0, 0);
    for (Request &request : requests)
        request.waiting = false;
}

} // namespace k42mc::internal

using namespace k42mc::internal;

int k42mcx_report_on_signal(int signo, uint32_t limit) {
    if (signo <= 0 || signo >= NSIG)
        return EINVAL;
    hook_fork();
    const ErrnoKeeper errno_keeper;
    requests[signo].limit = limit;
    struct sigaction action = {};
    action.sa_handler = handle;
    action.sa_flags = SA_RESTART;
    struct sigaction former = {};
    if (sigaction(signo, &action, &former) != 0)
        return errno;
    const int failure = start_thread();
    if (failure != 0)
        sigaction(signo, &former, nullptr);
    return failure;
}

K42MC_EXPORT(k42mcx_report_on_signal);
