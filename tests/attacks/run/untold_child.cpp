// k42mc run
// A child that no fork handler hears of leaves blocks and ends with a report: in files of its own.
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int reports_in(const char *folder) {
    int reports = 0;
    DIR *directory = opendir(folder);
    while (const dirent *entry = readdir(directory))
        reports += strstr(entry->d_name, ".json") != nullptr;
    closedir(directory);
    return reports;
}

} // namespace

int main() {
    const char *folder = getenv("K42MC_RUN_OUTPUT");
    if (folder == nullptr || reports_in(folder) != 1)
        return 1;
    const pid_t child = _Fork();
    if (child == 0) {
        void *volatile left = malloc(10);
        exit(left == nullptr);
    }
    int status = 1;
    waitpid(child, &status, 0);
    return status != 0 || reports_in(folder) != 2;
}
