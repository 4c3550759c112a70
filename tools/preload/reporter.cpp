#include "tools/preload/reporter.h"

#include "tools/preload/depth.h"
#include "tools/preload/output.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constinit Report report_now = nullptr;
constinit int wakes_reporter = -1;
constinit int pause_seconds = 0;

void ask_for_report(int) {
    const int saved_errno = errno;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakes_reporter, &one, sizeof one);
    errno = saved_errno;
}

void *report_when_asked(void *) {
    const InsideChecker inside; // whatever this thread allocates is none of the program's
    for (;;) {
        pollfd request{.fd = wakes_reporter, .events = POLLIN, .revents = 0};
        const int ready = poll(&request, 1, pause_seconds > 0 ? pause_seconds * 1000 : -1);
        uint64_t requests;
        if (ready > 0 && read(wakes_reporter, &requests, sizeof requests) < 0)
            return nullptr; // somebody closed it
        if (ready >= 0)
            report_now();
    }
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
    const int signal_number = static_cast<int>(number_in("K42MC_RUN_SIGNAL", 0));
    pause_seconds = static_cast<int>(number_in("K42MC_RUN_EVERY", 0));
    if (signal_number == 0 && pause_seconds <= 0)
        return;
    report_now = report;
    wakes_reporter = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!start_thread() || signal_number == 0)
        return;
    struct sigaction action {};
    action.sa_handler = ask_for_report;
    action.sa_flags = SA_RESTART;
    sigaction(signal_number, &action, nullptr);
}
