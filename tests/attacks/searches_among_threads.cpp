// Searches for lost blocks while threads allocate, hand blocks to each other, move and free them, start and end, and
// wait in system calls: no block is called lost, and none of the threads notices. An argument says how many searches.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <k42mc/k42mc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<bool> done = false;
std::atomic<int> interrupted = 0;
std::atomic<int> children_told = 0;
int never[2]; // a pipe that is closed in the end
sem_t never_posted;

// ---- Threads at work ----

struct Node {
    Node *next;
    char text[40];
};

constexpr int places = 64;
std::atomic<Node *> exchange[places];

Node *make(unsigned size) {
    auto *node = static_cast<Node *>(k42MC_malloc("a.c", 1, sizeof(Node) + size % 3000));
    node->next = nullptr;
    return node;
}

void release(Node *node) {
    while (node != nullptr) {
        Node *const next = node->next;
        k42MC_free("a.c", 2, node);
        node = next;
    }
}

// What is in a place is in the hands of this thread alone meanwhile.
void work(unsigned seed) {
    while (!done) {
        seed = seed * 1'664'525 + 1'013'904'223;
        Node *node = make(seed >> 8);
        node->next = exchange[seed >> 26].exchange(nullptr);
        if (seed % 4 == 0)
            node = static_cast<Node *>(k42MC_realloc("a.c", 3, node, sizeof(Node) + (seed >> 4) % 5000));
        if (seed % 8 == 0) {
            release(node->next);
            node->next = nullptr;
        }
        release(exchange[(seed >> 20) % places].exchange(node));
    }
}

void *hand_back(void *argument) {
    auto *node = static_cast<Node *>(argument);
    node->next = make(10);
    return node;
}

void start_threads() {
    while (!done) {
        pthread_t thread;
        void *result = nullptr;
        if (pthread_create(&thread, nullptr, hand_back, make(20)) == 0)
            pthread_join(thread, &result);
        release(static_cast<Node *>(result));
    }
}

// ---- Threads that wait ----

void note(long result) {
    if (result < 0 && errno == EINTR)
        ++interrupted;
}

void sleep_for_a_time() {
    timespec begin, end;
    const timespec time = {2, 0};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    timespec rest = time;
    note(nanosleep(&rest, &rest));
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double seconds = static_cast<double>(end.tv_sec - begin.tv_sec) +
                           static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e9;
    if (seconds < 2)
        ++interrupted;
}

void wait_in_poll() {
    pollfd one = {never[0], POLLIN, 0};
    note(poll(&one, 1, -1));
}

void wait_in_select() {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(never[0], &set);
    note(select(never[0] + 1, &set, nullptr, nullptr, nullptr));
}

void wait_in_epoll() {
    const int set = epoll_create1(0);
    epoll_event event = {};
    epoll_ctl(set, EPOLL_CTL_ADD, never[0], &event);
    note(epoll_wait(set, &event, 1, -1));
    close(set);
}

void wait_for_signal() {
    sigset_t some;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR2);
    note(sigwaitinfo(&some, nullptr));
}

void wait_for_post() {
    note(sem_wait(&never_posted));
}

void wait_for_bytes() {
    char byte;
    note(read(never[0], &byte, 1));
}

// A signal of the process's own does end the wait.
std::atomic<bool> paused = false;
void pause_once() {
    pause();
    paused = true;
}

bool all_found(int searches, int report) {
    size_t lost = 0;
    for (int i = 0; i < searches && lost == 0; ++i)
        lost = k42mcx_lost(0);
    static char text[1 << 16];
    const ssize_t size = pread(report, text, sizeof text, 0);
    printf("%zu lost in %d searches\n", lost, searches);
    if (lost != 0)
        printf("%.*s", static_cast<int>(size), text);
    return lost == 0;
}

} // namespace

int main(int argc, char **argv) {
    const int searches = argc > 1 ? atoi(argv[1]) : 40;
    FILE *report = tmpfile();
    dup2(fileno(report), STDERR_FILENO);
    signal(SIGCHLD, [](int) { ++children_told; });
    signal(SIGUSR1, [](int) {});
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    sem_init(&never_posted, 0, 0);
    if (pipe(never) != 0)
        return 1;
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < 4; ++i)
        threads.emplace_back(work, i);
    threads.emplace_back(start_threads);
    for (void (*wait)() : {sleep_for_a_time, wait_in_poll, wait_in_select, wait_in_epoll,
                           wait_for_signal, wait_for_post, wait_for_bytes})
        threads.emplace_back(wait);
    std::thread pausing(pause_once);
    bool good = all_found(searches, fileno(report));
    good = !paused && good;
    while (!paused) {
        pthread_kill(pausing.native_handle(), SIGUSR1);
        usleep(1000);
    }
    pausing.join();
    done = true;
    sem_post(&never_posted);
    kill(getpid(), SIGUSR2);
    close(never[1]);
    for (std::thread &thread : threads)
        thread.join();
    good = waitpid(-1, nullptr, __WNOTHREAD) == -1 && errno == ECHILD && good;
    printf("%d waits interrupted, %d children told\n", interrupted.load(), children_told.load());
    return good && interrupted == 0 && children_told == 0 ? 0 : 1;
}
