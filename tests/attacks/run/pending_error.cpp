// k42mc run --fds --error-exitcode 99
// What dlerror has yet to tell a thread stays, whatever functions the thread calls for the first time; and that the
// loader's words are released at its end is seen.
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

void use_streams() {
    FILE *const stream = fopen("/dev/null", "r");
    fclose(freopen("/dev/zero", "r", stream));
    fclose(tmpfile());
    pclose(popen("true", "r"));
}

void use_descriptors() {
    int both[2];
    if (pipe(both) != 0)
        exit(2);
    close(both[0]);
    close(both[1]);
    close(epoll_create1(0));
    const int from = open("/dev/null", O_RDONLY), to = dup(from);
    close(dup2(from, to));
    close(from);
}

void use_the_rest() {
    signal(SIGUSR1, SIG_IGN);
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    void *const block = memalign(64, 100);
    if (malloc_usable_size(block) < 100)
        exit(3);
    free(realloc(block, 1000));
    free(calloc(1, 10));
}

void *meet_an_error(void *use) {
    if (dlopen("/no/such/module.so", RTLD_NOW) != nullptr)
        exit(4);
    reinterpret_cast<void (*)()>(use)();
    const char *const told = dlerror();
    if (told == nullptr || strstr(told, "/no/such/module.so") == nullptr)
        exit(5);
    return nullptr;
}

} // namespace

int main() {
    void (*const uses[])() = {use_streams, use_descriptors, use_the_rest};
    for (void (*const use)() : uses) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, meet_an_error, reinterpret_cast<void *>(use)) != 0)
            return 1;
        pthread_join(thread, nullptr);
    }
    void *const module = dlopen("libm.so.6", RTLD_NOW);
    dlsym(module, "no_such_function");
    dlclose(module);
    dlopen("/no/such/module.so", RTLD_NOW); // goes untold
}
