// k42mc run
// A program that does not want the compilers' leak checker is not searched, and its report says so.
#include "report_of_process.h"

#include <sys/wait.h>

extern "C" {
[[gnu::weak]] int __lsan_do_recoverable_leak_check();

int __lsan_is_turned_off() {
    return 1;
}
}

int main() {
    const pid_t child = fork();
    if (child == 0) {
        [[maybe_unused]] void *volatile block = malloc(100);
        block = nullptr;
        exit(__lsan_do_recoverable_leak_check());
    }
    int status = 1;
    waitpid(child, &status, 0);
    const std::string report = report_of(child);
    const bool has_report = report.find(R"("kind":"end")") != std::string::npos;
    const bool was_searched = report.find(R"("searched":true)") != std::string::npos;
    const bool is_told = report.find("__lsan_is_turned_off") != std::string::npos;
    return status == 0 && has_report && !was_searched && is_told ? 0 : 1;
}
