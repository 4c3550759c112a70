// k42mc run
// Servers give up their user or their root folder, and with it the way to the folder for reports; some close every
// descriptor that they do not know as well. Their reports arrive all the same, and say which children have none.
#include "report_of_process.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned nobody = 65534;

// Whoever is not root becomes it in a user namespace, where there are any.
bool become_root() {
    return geteuid() == 0 || unshare(CLONE_NEWUSER) == 0;
}

bool keep_rights() {
    return true;
}

bool change_user() {
    return geteuid() == 0 && setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0;
}

bool change_root() {
    char root[] = "root.XXXXXX";
    return become_root() && mkdtemp(root) != nullptr && chroot(root) == 0 && chdir("/") == 0;
}

bool change_both() {
    return change_root() && change_user();
}

// All that are free, so that those that stay open have neighbours.
constexpr int least = 3, most = 400;
bool is_ours[most];

bool is_open(int descriptor) {
    return fcntl(descriptor, F_GETFD) >= 0;
}

void open_others() {
    for (int descriptor = least; descriptor < most; ++descriptor)
        is_ours[descriptor] = !is_open(descriptor) && dup2(0, descriptor) == descriptor;
}

bool others_are_closed() {
    for (int descriptor = least; descriptor < most; ++descriptor)
        if (is_ours[descriptor] && is_open(descriptor))
            return false;
    return true;
}

void close_others() {
    for (int descriptor = least; descriptor < most; ++descriptor)
        if (is_ours[descriptor])
            close(descriptor);
}

void close_each() {
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor);
}

// With something of the program's own in place of all.
void replace_each() {
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        if (dup2(0, descriptor) != descriptor)
            abort();
    close_each();
}

// From either side of the first that stays open; what is inherited has lower numbers.
void close_all() {
    unsigned stays = 100;
    while (stays < most && (is_ours[stays] || !is_open(static_cast<int>(stays))))
        ++stays;
    close_range(least, stays, 0);
    close_range(stays + 1, ~0u, 0);
}

void close_from() {
    closefrom(3);
}

[[noreturn]] void play(bool (*change)(), void (*close_them)(), bool allocates_first) {
    void *volatile left = allocates_first ? malloc(1234) : nullptr;
    open_others();
    if (!change())
        exit(77);
    close_them();
    if (!allocates_first)
        left = malloc(1234);
    exit(others_are_closed() && left != nullptr ? 0 : 1);
}

void leave_block_in_child() {
    const pid_t child = fork();
    if (child == 0) {
        void *volatile left = malloc(10);
        exit(left == nullptr);
    }
    waitpid(child, nullptr, 0);
}

// Runs it in a child. Returns 0 when the child has ended so and left a report with all these.
template <class Action> int run_one(const Action &action, std::initializer_list<const char *> expected) {
    const pid_t child = fork();
    if (child == 0)
        action();
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 0)
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    const std::string report = report_of(child);
    return std::ranges::all_of(expected,
                               [&](const char *part) { return report.find(part) != std::string::npos; })
               ? 0
               : 1;
}

} // namespace

int main() {
    bool skipped = false;
    bool failed = false;
    const auto judge = [&](int result) { (result == 77 ? skipped : failed) |= result != 0; };
    for (bool (*const change)() : {keep_rights, change_user, change_root, change_both})
        for (void (*const close_them)() :
             {close_others, close_each, replace_each, close_all, close_from})
            for (const bool allocates_first : {false, true})
                judge(run_one([&] { play(change, close_them, allocates_first); },
                              {R"("largest":1234)", R"("kind":"end")"}));
    for (bool (*const change)() : {change_user, change_root}) {
        const auto action = [change] {
            const bool changed = change();
            leave_block_in_child();
            exit(changed ? 0 : 77);
        };
        judge(run_one(action, {R"("kind":"end")", "it can make no file for its report"}));
    }
    return failed ? 1 : skipped ? 77 : 0;
}
