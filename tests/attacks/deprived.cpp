// Processes that the system denies descriptors, their files, or system calls, from before the checker is on
// or while it is: each call returns, nothing faults, and what can be said on standard error is said.
#include "rounds.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <k42mc/k42mc.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

int nowhere, said;

void limit_descriptors(rlim_t most) {
    const rlimit limit{most, most};
    setrlimit(RLIMIT_NOFILE, &limit);
}

void no_descriptors() {
    limit_descriptors(0);
}

void three_descriptors() {
    limit_descriptors(3);
}

// Whoever is not root becomes it in a user namespace, where there are any.
void empty_root() {
    char root[] = "root.XXXXXX";
    if (geteuid() != 0)
        unshare(CLONE_NEWUSER);
    if (mkdtemp(root) == nullptr || chroot(root) != 0 || chdir("/") != 0)
        puts("there is no other root to be had");
}

// Calls are denied, or all others are.
void filter(std::initializer_list<unsigned> calls, bool denied, unsigned error) {
    sock_filter program[32];
    unsigned short length = 0;
    program[length++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
    for (const unsigned call : calls) {
        program[length++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1);
        program[length++] =
            BPF_STMT(BPF_RET | BPF_K, denied ? SECCOMP_RET_ERRNO | error : SECCOMP_RET_ALLOW);
    }
    program[length++] =
        BPF_STMT(BPF_RET | BPF_K, denied ? SECCOMP_RET_ALLOW : SECCOMP_RET_ERRNO | error);
    const sock_fprog whole{length, program};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &whole);
}

[[maybe_unused]] void few_calls() {
#ifdef __x86_64__
    constexpr unsigned map = SYS_mmap;
#else
    constexpr unsigned map = SYS_mmap2;
#endif
    filter({SYS_write, SYS_exit, SYS_exit_group, SYS_futex, SYS_brk, map}, false, EPERM);
}

void no_signal_masks() {
    filter({SYS_rt_sigprocmask}, true, ENOSYS);
}

struct Deprivation {
    const char *name;
    void (*begin)();
} constexpr deprivations[] = {{"no descriptors", no_descriptors},
                              {"three descriptors", three_descriptors},
                              {"an empty root", empty_root},
#ifndef __SANITIZE_ADDRESS__ // which needs more itself
                              {"few system calls", few_calls},
#endif
                              {"no signal masks", no_signal_masks}};

// A block of an allocator of the process's own, with nothing readable around it.
void record_pages() {
    auto *pages =
        static_cast<char *>(mmap(nullptr, 3 * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (mprotect(pages + 4096, 4096, PROT_READ | PROT_WRITE) == 0 && MCLock()) {
        MCAlloc("pages.c", 1, MC_FIX, reinterpret_cast<uintptr_t>(pages + 4096), 4096);
        MCUnlock();
    }
}

bool use_blocks() {
    bool good = true;
    for (const size_t size : {size_t{10}, size_t{1'000'000}}) {
        auto *block = static_cast<char *>(k42MC_malloc("deprived.cpp", 1, size));
        memset(block, 'x', size);
        block = static_cast<char *>(k42MC_realloc("deprived.cpp", 2, block, 3 * size));
        good = good && block[size - 1] == 'x';
        MCCheck(K42MC_BE_ADDR(block));
        k42MC_free("deprived.cpp", 3, block);
    }
    return good;
}

void use_descriptors() {
    for (int32_t descriptor = -1; descriptor < 5; ++descriptor) {
        FDOpen("deprived", descriptor);
        k42mcx_fd_opened("deprived", descriptor);
        FDCheck(static_cast<int32_t>(K42MC_BE32(descriptor)));
    }
    FDReport(0);
    k42mcx_fd_report_json(nowhere);
}

int play(uint32_t file_type, bool late, void (*deprive)()) {
    if (!late)
        deprive();
    char text[] = "deprived.cpp:4:LK:STD:0x1:100:1";
    MCInit(K42MC_BE32(file_type), 0);
    record_pages();
    if (late)
        deprive();
    void *const kept = k42MC_malloc("deprived.cpp", 4, 100);
    bool good = use_blocks();
    MCBTFilterOut(text);
    good = k42mcx_verify() == 0 && good;
    MCReport(0);
    k42mcx_report_json(nowhere, 0);
    MCDebugMsg(1, "a message\n");
    use_descriptors();
    k42MC_free("deprived.cpp", 5, kept);
    MCInit(K42MC_BE32(MC_TO_STDERR), 0);
    MCDeinit();
    return good ? 0 : 1;
}

bool is_told(std::string_view text, uint32_t file_type) {
    return file_type == MC_TO_FILE || (text.find("\ndeprived.cpp:4:LK:STD:") != text.npos &&
                                       text.ends_with("========== MCDeinit: Done ==========\n"));
}

bool passes(uint32_t file_type, bool late, const Deprivation &deprivation) {
    ftruncate(said, 0);
    const pid_t process = fork();
    if (process == 0)
        _exit(play(file_type, late, deprivation.begin));
    int status = -1;
    waitpid(process, &status, 0);
    static char text[1 << 20];
    const ssize_t size = pread(said, text, sizeof text, 0);
    if (status == 0 && is_told({text, static_cast<size_t>(size)}, file_type))
        return true;
    printf("%s, file type %u, late %d: status %#x\n%.*s", deprivation.name, file_type, late, status,
           static_cast<int>(size), text);
    return false;
}

} // namespace

int main() {
    nowhere = open("/dev/null", O_WRONLY);
    said = memfd_create("said", 0);
    dup2(said, STDERR_FILENO);
    fcntl(said, F_SETFL, O_APPEND);
    char folder[] = "deprived.XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0)
        return 1;
    k42mcx_report_folder("reports");
    bool good = true;
    for (const Deprivation &deprivation : deprivations)
        for (const uint32_t file_type : {MC_TO_STDERR, MC_TO_FILE})
            for (const bool late : {false, true})
                good = passes(file_type, late, deprivation) && good;
    std::filesystem::remove_all("../" + std::string(folder));
    return good ? 0 : 1;
}
