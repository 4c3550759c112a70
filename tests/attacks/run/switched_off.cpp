// k42mc run --every 1 --verify
// A child of a program that knows the checker ends with the checker switched off.
#include <cstdlib>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

int main() {
    const pid_t child = fork();
    if (child == 0) {
        const auto switch_off = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "MCDeinit"));
        if (switch_off == nullptr)
            abort();
        switch_off();
        return 0;
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0 ? 0 : 1;
}
