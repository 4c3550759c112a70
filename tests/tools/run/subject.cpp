// A program that knows nothing of the checker, with bugs to order: subject <what>.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Through a pointer that the compiler cannot see through.
char *volatile kept;

[[gnu::noinline]] void leaky_function() {
    kept = strdup("eleven long");
    kept = nullptr;
}

[[gnu::noinline]] void leak_below(int calls) {
    calls == 0 ? leaky_function() : leak_below(calls - 1);
    asm volatile(""); // no tail call
}

// Released by the last destructors.
struct Late {
    ~Late() { free(memory); }
    void *memory = malloc(100);
} late;

void churn() {
    for (size_t i = 1; i < 20000; ++i) {
        auto text = std::make_unique<std::string>(i % 300, 'x');
        void *block = realloc(malloc(i % 77), i % 500 + 1);
        free(block);
        auto *numbers = new int[i % 50];
        delete[] numbers;
    }
}

bool sound_interface() {
    void *block = nullptr;
    if (posix_memalign(&block, 4096, 10) != 0 || reinterpret_cast<uintptr_t>(block) % 4096 != 0)
        return false;
    free(block);
    block = calloc(3, 7);
    const bool size_kept = malloc_usable_size(block) == 21;
    free(block);
    block = malloc(0);
    const bool zero_is_a_block = block != nullptr;
    free(block);
    return size_kept && zero_is_a_block;
}

// Waits until the shim has written so many reports.
void await_reports(int wanted) {
    const std::string path = std::string(getenv("K42MC_RUN_OUTPUT")) + "/" +
                             program_invocation_short_name + "." + std::to_string(getpid()) + ".json";
    for (int tries = 0; tries < 3000; ++tries, usleep(10000)) {
        std::ifstream file(path);
        int reports = 0;
        for (std::string line; std::getline(file, line);)
            reports += line.find("\"end\"") != std::string::npos;
        if (reports >= wanted)
            return;
    }
    abort();
}

void leak_between_reports() {
    for (int report = 1; report <= 2; ++report) {
        leaky_function();
        raise(SIGUSR2);
        await_reports(report);
    }
}

[[gnu::noinline]] int opening_function() {
    volatile int descriptor = open("/dev/null", O_RDONLY);
    return descriptor;
}

void misuse_descriptors() {
    volatile int number = 2; // unknown to the compiler, or it would write the loop out
    for (int i = 0; i < number; ++i)
        dup2(opening_function(), 100);
    close_range(100, 100, 0); // goes unseen, and is no leak all the same
    DIR *folder = opendir("/");
    const int of_folder = dirfd(folder);
    closedir(folder);
    close(of_folder);
    FILE *stream = fopen("/dev/null", "r");
    fclose(stream);
    int ends[2];
    if (pipe(ends) == 0) {
        close(ends[0]);
        close(ends[1]);
    }
    stream = freopen("/dev/null", "r", stdin);
    fclose(stream);
}

// The second module comes to where the first one was.
void leak_in_modules(const std::string &program) {
    for (const char *name : {"a", "b"}) {
        void *module = dlopen((program + "_module_" + name + ".so").c_str(), RTLD_NOW);
        if (module == nullptr)
            abort();
        reinterpret_cast<void (*)()>(dlsym(module, "leak"))();
        dlclose(module);
    }
}

volatile sig_atomic_t told_to_end = 0;

// Says which signals come, until one tells it to end. Some are not handled.
int await_signals() {
    signal(SIGTERM, [](int) { told_to_end = 1; });
    for (const int number : {SIGUSR1, SIGINT, SIGCONT})
        signal(number, [](int came) { dprintf(1, "%s\n", sigabbrev_np(came)); });
    dprintf(1, "ready %d\n", getpid());
    while (told_to_end == 0)
        usleep(10000);
    return 5;
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (what == "leak")
        leaky_function();
    else if (what == "printing")
        puts("into a buffer, which stays");
    else if (what == "interface")
        return sound_interface() ? 0 : 1;
    else if (what == "status")
        return 7;
    else if (what == "signal")
        raise(SIGTERM);
    else if (what == "await")
        return await_signals();
    else if (what == "too-much") {
        volatile size_t much = PTRDIFF_MAX;
        kept = static_cast<char *>(malloc(much));
    } else if (what == "overrun") {
        kept = static_cast<char *>(malloc(10));
        kept[10] = 'x';
    } else if (what == "double-free") {
        kept = static_cast<char *>(malloc(10));
        free(kept);
        free(kept);
    } else if (what == "mixed") {
        kept = reinterpret_cast<char *>(new int);
        free(kept);
    } else if (what == "threads") {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back(churn);
        for (std::thread &thread : threads)
            thread.join();
    } else if (what == "fork") {
        if (fork() == 0) {
            leaky_function();
            return 0;
        }
        wait(nullptr);
    } else if (what == "exec") {
        execl(argv[0], argv[0], "leak", nullptr);
    } else if (what == "deep") {
        leak_below(30);
    } else if (what == "reports") {
        leak_between_reports();
    } else if (what == "wait") {
        await_reports(2);
    } else if (what == "descriptors") {
        misuse_descriptors();
    } else if (what == "modules") {
        leak_in_modules(argv[0]);
    } else if (what == "haste") {
        leaky_function();
        if (fork() == 0)
            _exit(0);
        wait(nullptr);
        _exit(3);
    } else if (what == "closes") { // what it has not opened, and uses the numbers
        leaky_function();
        FILE *own = fopen("own", "w");
        closefrom(fileno(own) + 1);
        for (int number = 200; number < 210; ++number)
            dup2(fileno(own), number);
    } else if (what == "server") { // overwrites its arguments and its environment
        memset(argv[0], '/', strlen(argv[0]));
        clearenv();
        if (fork() == 0) {
            leaky_function();
            // As if it had given up a right: this one holds for the superuser, too.
            rmdir("moved");
            return rename("reports", "moved");
        }
        wait(nullptr);
        rename("moved", "reports");
    } else if (what == "dlopen") {
        void *module = dlopen("libresolv.so.2", RTLD_NOW);
        if (module == nullptr || dlclose(module) != 0)
            return 1;
    }
    return 0;
}
