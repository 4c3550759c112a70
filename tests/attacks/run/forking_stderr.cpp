// k42mc run --every 1
// Threads fork, others print on standard error: each line has to come out there.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int lines = 20000;
std::atomic<bool> printing = true;

void fork_while_printing() {
    while (printing) {
        const pid_t child = fork();
        if (child == 0)
            _exit(0);
        waitpid(child, nullptr, 0);
    }
}

void print() {
    for (int line = 0; line < lines; ++line)
        fprintf(stderr, "a line of the program's own\n");
}

long count_lines(FILE *file) {
    long count = 0;
    rewind(file);
    for (int c; (c = fgetc(file)) != EOF;)
        count += c == '\n';
    return count;
}

} // namespace

int main() {
    FILE *file = tmpfile();
    const int terminal = dup(2);
    dup2(fileno(file), 2);
    std::thread forking[2] = {std::thread(fork_while_printing), std::thread(fork_while_printing)};
    std::thread printers[2] = {std::thread(print), std::thread(print)};
    for (std::thread &thread : printers)
        thread.join();
    printing = false;
    for (std::thread &thread : forking)
        thread.join();
    dup2(terminal, 2);
    const long count = count_lines(file);
    printf("%ld lines\n", count);
    return count == 2L * lines ? 0 : 1;
}
