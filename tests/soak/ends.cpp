// Processes that end in all ways while their threads allocate, report and are cancelled: each comes to its
// end, and where exit handlers run, a report file is whole.
#include "rounds.h"
#include "traffic.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pthread.h>

namespace {

constexpr const char *folder = "ends.reports";

enum Ending { returned, left_by_exit, quick, at_once, main_thread_gone, endings };

struct Plan {
    explicit Plan(unsigned seed)
        : random(seed), ending(static_cast<Ending>(random() % endings)), to_file(random() % 2) {}

    std::mt19937 random;
    const Ending ending;
    const bool to_file;
};

std::atomic<bool> done = false;

void *allocate(void *seed) {
    Traffic traffic(static_cast<unsigned>(reinterpret_cast<uintptr_t>(seed)));
    while (!done)
        traffic.step();
    return nullptr;
}

void *report(void *) {
    while (!done) {
        MCReport(K42MC_BE32(3));
        k42mcx_verify();
    }
    return nullptr;
}

// Allocates before it may be cancelled anywhere, so that it has something to leave behind.
void *compute(void *) {
    k42MC_free("ends.cpp", 2, k42MC_malloc("ends.cpp", 1, 10));
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    for (;;)
        __asm__ volatile("");
}

pthread_t start(void *(*action)(void *), unsigned seed = 0) {
    pthread_t thread;
    pthread_create(&thread, nullptr, action, reinterpret_cast<void *>(uintptr_t{seed}));
    return thread;
}

void end(Ending ending) {
    switch (ending) {
    case left_by_exit:
        exit(0);
    case quick:
        quick_exit(0);
    case at_once:
        _exit(0);
    case main_thread_gone:
        done = true;
        pthread_exit(nullptr);
    default:
        break;
    }
}

int play(unsigned seed) {
    Plan plan(seed);
    k42mcx_report_folder(folder);
    MCInit(K42MC_BE32(plan.to_file ? MC_TO_FILE : MC_TO_STDERR), 0);
    k42mcx_at_exit(plan.random() % 4);
    for (unsigned thread = 1 + plan.random() % 3; thread > 0; --thread)
        start(allocate, plan.random());
    if (plan.random() % 4 == 0)
        start(report);
    const pthread_t cancelled = start(compute);
    usleep(plan.random() % 3000);
    pthread_cancel(cancelled);
    if (plan.random() % 2)
        pthread_join(cancelled, nullptr);
    if (plan.random() % 4 == 0)
        MCDeinit();
    end(plan.ending);
    return 0;
}

std::string contents(const std::filesystem::path &path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool is_whole(const std::string &report) {
    return report.starts_with("==========MC init==========\n") &&
           (report.ends_with("}\n") || report.ends_with("========== MCDeinit: Done ==========\n"));
}

bool examine(unsigned seed) {
    const Plan plan(seed);
    const bool handlers_run = plan.ending != quick && plan.ending != at_once;
    int reports = 0;
    bool whole = true;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        const std::string text = contents(entry.path());
        if (entry.path().extension() == ".txt") {
            ++reports;
            whole = whole && is_whole(text);
        } else {
            whole = whole && text.find("{\"kind\":\"end\"") != std::string::npos;
        }
    }
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    return !handlers_run || (whole && (!plan.to_file || reports == 1));
}

} // namespace

int main(int argc, char **argv) {
    send_stderr("/dev/null");
    std::filesystem::create_directory(folder);
    return run_rounds(argc, argv, 10'000, play, examine);
}
