/* A process that loads the library named by its argument while it runs, and unloads it, twice. */
#include "expect.h"
#include <dlfcn.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

static void *find(void *library, const char *name) {
    void *found = dlsym(library, name);
    EXPECT(found);
    return found;
}

static void use(const char *path) {
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        fprintf(stderr, "%s\n", dlerror());
    EXPECT(library);

    void (*init)(uint32_t, uint32_t) = (void (*)(uint32_t, uint32_t))find(library, "MCInit");
    void *(*allocate)(const char *, int, size_t) =
        (void *(*)(const char *, int, size_t))find(library, "k42MC_malloc");
    const volatile uint8_t *on = find(library, "gK42MCOn");
    EXPECT(*on == 0);
    init(0, 0);
    EXPECT(*on == 1);
    EXPECT(allocate("loaded.c", 1, 10));
    EXPECT(dlclose(library) == 0);
    EXPECT(!dlopen(path, RTLD_NOW | RTLD_NOLOAD));
}

int main(int argc, char **argv) {
    int status;

    EXPECT(argc == 2);
    use(argv[1]);
    use(argv[1]);
    /* Nothing that was registered for forks and the exit may be left behind. */
    pid_t child = fork();
    if (child == 0)
        exit(0);
    EXPECT(waitpid(child, &status, 0) == child && status == 0);
    return 0;
}
