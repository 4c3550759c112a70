// Searches for lost blocks while threads allocate, hand blocks to each other, move and free them, start and end, and
// wait in system calls: no block is called lost, and none of the threads notices. An argument says how many searches.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <k42mc/k42mc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<bool> done = false;
std::atomic<int> interrupted = 0;
std::atomic<int> children_told = 0;
std::atomic<int> in_time = 0; // waits that have ended by themselves
int never[2];                 // a pipe that is closed in the end
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

// Nobody asks what is left of the time. The first search may begin it anew, and no other one.
template <class Wait> void wait_in_time(Wait wait) {
    wait();
    if (!done)
        ++in_time;
}
void sleep_unasked() {
    wait_in_time([] { note(usleep(200'000)); });
}
void poll_for_a_time() {
    wait_in_time([] { note(poll(nullptr, 0, sizeof(void *) == 8 ? 200 : 0)); });
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

// ---- Searches ----

int searches = 40;
int report;
char text[1 << 16];

bool is_reported(const char *words) {
    const ssize_t size = pread(report, text, sizeof text - 1, 0);
    text[size > 0 ? size : 0] = '\0';
    return strstr(text, words) != nullptr;
}

// In a thread with as little stack as there can be.
void *all_found(void *) {
    size_t lost = 0;
    const time_t end = time(nullptr) + 20;
    for (int i = 0; (i < searches || (in_time < 2 && time(nullptr) < end)) && lost == 0; ++i)
        lost = k42mcx_lost(0);
    printf("%zu lost in %d searches, %d waits ended in time\n", lost, searches, in_time.load());
    const bool good = lost == 0 && in_time == 2 && !is_reported("ERROR");
    if (!good)
        printf("%s", text);
    return good ? &in_time : nullptr;
}

bool all_found_with_little_stack() {
    pthread_attr_t attributes;
    pthread_t thread;
    void *good = nullptr;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, static_cast<size_t>(PTHREAD_STACK_MIN));
    return pthread_create(&thread, &attributes, all_found, nullptr) == 0 &&
           pthread_join(thread, &good) == 0 && good != nullptr;
}

// Signals that the process ignores, of which it is not to notice more than before.
pid_t start_sender() {
    const pid_t parent = getpid(), sender = fork();
    if (sender != 0)
        return sender;
    for (prctl(PR_SET_PDEATHSIG, SIGKILL); kill(parent, SIGURG) == 0;)
        usleep(50);
    _exit(0);
}

// Nobody knows what is in the registers of a thread that does not stop. libc's own use of the signal goes on.
bool gives_up_on_deaf_thread() {
    std::atomic<bool> deaf = false, over = false;
    std::thread thread([&] {
        const uint64_t all = ~uint64_t{0};
        syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, nullptr, sizeof all);
        for (deaf = true; !over;)
            usleep(1000);
    });
    while (!deaf)
        usleep(1000);
    bool good = k42mcx_lost(0) == 0 && k42mcx_lost(0) == 0 && is_reported("does not stop");
    over = true;
    thread.join();
    sem_t go;
    sem_init(&go, 0, 0);
    std::thread other([&] { sem_wait(&go); });
    good = seteuid(geteuid()) == 0 && k42mcx_lost(0) == 0 && good;
    sem_post(&go);
    other.join();
    return good;
}

// The registry that was searched is gone when the search comes to its end, and another one is smaller. Ends by itself.
void search_among_restarts() {
    std::atomic<bool> over = false;
    std::thread restarting([&] {
        for (; !over; usleep(1000)) {
            MCDeinit();
            MCInit(K42MC_BE32(MC_TO_STDERR), K42MC_BE32(MC_TYPE_BT_OFF));
        }
    });
    std::vector<uintptr_t> blocks(20'000);
    for (int round = 0; round < 10; ++round) {
        for (uintptr_t &block : blocks) // inverted, and so lost
            block = ~reinterpret_cast<uintptr_t>(k42MC_malloc("a.c", 4, 10));
        k42mcx_lost(0);
        for (const uintptr_t block : blocks)
            k42MC_free("a.c", 5, reinterpret_cast<void *>(~block));
    }
    over = true;
    restarting.join();
}

} // namespace

int main(int argc, char **argv) {
    if (argc > 1)
        searches = atoi(argv[1]);
    report = fileno(tmpfile());
    dup2(report, STDERR_FILENO);
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
    for (void (*wait)() :
         {sleep_for_a_time, sleep_unasked, poll_for_a_time, wait_in_poll, wait_in_select, wait_in_epoll,
          wait_for_signal, wait_for_post, wait_for_bytes})
        threads.emplace_back(wait);
    std::thread pausing(pause_once);
    const pid_t sender = start_sender();
    bool good = all_found_with_little_stack();
    good = !paused && good;
    kill(sender, SIGKILL);
    waitpid(sender, nullptr, 0);
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
    good = gives_up_on_deaf_thread() && good;
    search_among_restarts();
    good = waitpid(-1, nullptr, __WNOTHREAD) == -1 && errno == ECHILD && good;
    printf("%d waits interrupted, %d children told\n", interrupted.load(), children_told.load());
    return good && interrupted == 0 && children_told == 1 ? 0 : 1; // the sender
}
