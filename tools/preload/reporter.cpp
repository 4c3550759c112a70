#include "tools/preload/reporter.h"

#include "tools/preload/depth.h"
#include "tools/preload/next.h"
#include "tools/preload/output.h"
#include "tools/preload/settings.h"

#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <time.h>

namespace {

constinit Report report_now = nullptr;
constinit time_t pause_seconds = 0;
constinit int report_signal = 0;

// All zeroes is what sem_init makes of a private one at 0. No descriptor, which the program might close.
constinit sem_t requests = {};

void ask_for_report(int) {
    const int saved_errno = errno;
    sem_post(&requests);
    errno = saved_errno;
}

int wait_for_request() {
    if (pause_seconds <= 0)
        return sem_wait(&requests);
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += pause_seconds;
    return sem_clockwait(&requests, CLOCK_MONOTONIC, &until);
}

void *report_when_asked(void *) {
    const InsideChecker inside; // whatever this thread allocates is none of the program's
    do {
        while (wait_for_request() != 0 && errno == EINTR)
            continue;
        while (sem_trywait(&requests) == 0)
            continue; // one report answers all
    } while (report_now());
    return nullptr;
}

// With all signals blocked: they are the program's.
bool start_thread() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const bool started = pthread_create(&thread, nullptr, report_when_asked, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (started)
        pthread_detach(thread);
    return started;
}

} // namespace

void start_reporter(Report report) {
    report_signal = static_cast<int>(number_in("K42MC_RUN_SIGNAL", 0));
    pause_seconds = number_in("K42MC_RUN_EVERY", 0);
    if (report_signal == 0 && pause_seconds <= 0)
        return;
    report_now = report;
    if (!start_thread() || report_signal == 0)
        return;
    struct sigaction action {};
    action.sa_handler = ask_for_report;
    action.sa_flags = SA_RESTART;
    NEXT(sigaction)(report_signal, &action, nullptr);
}

void restart_reporter() {
    if (report_now == nullptr)
        return;
    sem_init(&requests, 0, 0);
    start_thread();
}

void signal_is_taken(int number) {
    if (report_now != nullptr && number == report_signal)
        write_note("the program handles the signal for reports itself: none will come by it");
}
