// Searches for lost blocks in a process of a thousand threads, in one that may not make another process, at a process's
// end, and in a forked child: what is lost is listed, and nothing else.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <k42mc/k42mc.h>
#include <pthread.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

pthread_barrier_t begun, over;

// Holds a block on its stack alone, but for one thread, which has lost it.
void *hold(void *loses) {
    void *volatile held = k42MC_malloc("limits.c", loses != nullptr ? 2 : 1, 10);
    if (loses != nullptr)
        held = nullptr;
    pthread_barrier_wait(&begun);
    pthread_barrier_wait(&over);
    k42MC_free("limits.c", 3, held);
    return nullptr;
}

// Returns what was said while so many threads waited.
std::string said_among(unsigned threads, void (*work)()) {
    FILE *const file = tmpfile();
    const int own = dup(STDERR_FILENO);
    pthread_barrier_init(&begun, nullptr, threads + 1);
    pthread_barrier_init(&over, nullptr, threads + 1);
    pthread_attr_t small;
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 1 << 16);
    std::vector<pthread_t> all(threads);
    for (pthread_t &thread : all)
        if (pthread_create(&thread, &small, hold, &thread == all.data() ? &begun : nullptr) != 0)
            exit(77);
    pthread_barrier_wait(&begun);
    dup2(fileno(file), STDERR_FILENO);
    work();
    dup2(own, STDERR_FILENO);
    close(own);
    pthread_barrier_wait(&over);
    for (const pthread_t thread : all)
        pthread_join(thread, nullptr);
    std::string text(static_cast<size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
    if (pread(fileno(file), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
        text = "unreadable";
    fclose(file);
    return text;
}

bool lists_one(const std::string &text) {
    const size_t at = text.find(":LB:");
    return at != std::string::npos && text.find(":LB:", at + 1) == std::string::npos &&
           text.find(":LI:") == std::string::npos &&
           text.find("limits.c:2:LB:STD:0x") != std::string::npos;
}

void search() {
    k42mcx_lost(0);
}

// For the superuser there is no such limit.
void search_at_the_limit() {
    const rlimit none = {0, 0};
    if (setrlimit(RLIMIT_NPROC, &none) != 0)
        abort();
    k42mcx_lost(0);
}

void end_child() {
    const pid_t child = fork();
    if (child == 0) {
        k42mcx_at_exit(K42MCX_EXIT_LOST);
        exit(0);
    }
    waitpid(child, nullptr, 0);
}

bool is(const char *what, bool good, const std::string &text) {
    if (!good)
        printf("%s: %s\n", what, text.c_str());
    return good;
}

} // namespace

int main() {
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    std::string text = said_among(1000, search);
    bool good = is("a thousand threads", lists_one(text), text);
    MCInit(0, K42MC_BE32(MC_TYPE_LK_RESET));
    // The threads that held them are no more in the child.
    text = said_among(3, end_child);
    good = is("a forked child", text.find("limits.c:2:LB:STD:0x") != std::string::npos, text) && good;
    MCInit(0, K42MC_BE32(MC_TYPE_LK_RESET));
    if (geteuid() == 0 && setuid(65534) != 0)
        return 77;
    text = said_among(3, search_at_the_limit);
    const bool says_so =
        text.find("k42mcx_lost: no copy of the process can be made: its threads stood still\n") !=
        std::string::npos;
    good = is("no process may be made", says_so && lists_one(text), text) && good;
    return good ? 0 : 1;
}
