// Children that no fork handler hears of, which allocate and report: what they write does not land in
// their parent's report file, and those that have their parent's memory, or cannot be told from these, leave
// its sink as it was and write to standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <sched.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string folder;

// An NA line among others.
void allocate_and_report(const char *file) {
    k42MC_MM_malloc(file, 1, 10); // there is no memory manager
    MCReport(0);
}

int in_shared_memory(void *) {
    k42MC_MM_malloc("vfork.c", 1, 10);
    _exit(0);
}

std::string contents(const std::string &path) {
    std::string text(1 << 16, '\0');
    const int file = open(path.c_str(), O_RDONLY);
    const ssize_t size = read(file, text.data(), text.size());
    close(file);
    text.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return text;
}

int files = 0, faults = 0;

void examine(const std::string &text) {
    const bool parents = text.starts_with("==========MC init");
    const bool childs = text.find("child.c") != std::string::npos;
    const size_t cycle = text.find("<cycle ");
    if (parents == childs || cycle == std::string::npos ||
        text.find("<cycle ", cycle + 1) != std::string::npos ||
        text.find("vfork.c") != std::string::npos || text.find("clone.c") != std::string::npos) {
        printf("a report file:\n%s\n", text.c_str());
        ++faults;
    }
    ++files;
}

} // namespace

int main() {
    folder = "children_past_fork." + std::to_string(getpid());
    k42mcx_report_folder(folder.c_str());
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    MCInit(K42MC_BE32(MC_TO_FILE), K42MC_BE32(MC_TYPE_BT_OFF));
    if (_Fork() == 0) {
        allocate_and_report("child.c");
        _exit(0);
    }
    if (syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr) == 0) {
        allocate_and_report("clone.c");
        _exit(0);
    }
    static char stack[1 << 17];
    clone(in_shared_memory, stack + sizeof stack, CLONE_VM | CLONE_VFORK | SIGCHLD, nullptr);
    while (wait(nullptr) > 0) {
    }
    MCReport(0);
    MCDeinit();

    DIR *directory = opendir(folder.c_str());
    while (const dirent *entry = readdir(directory)) {
        const std::string path = folder + "/" + entry->d_name;
        if (entry->d_name[0] != '.') {
            examine(contents(path));
            unlink(path.c_str());
        }
    }
    closedir(directory);
    rmdir(folder.c_str());
    if (files != 2)
        printf("%d files\n", files);
    return faults != 0 || files != 2;
}
