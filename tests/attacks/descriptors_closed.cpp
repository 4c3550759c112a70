// A daemon closes every descriptor that it does not know, and opens something of its own under the numbers
// of the report file and the debug file: no line goes there.
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

int main() {
    const std::string folder = "descriptors_closed." + std::to_string(getpid());
    k42mcx_report_folder(folder.c_str());
    MCInit(K42MC_BE32(MC_TO_FILE), 0);
    MCDebugMsg(0, "message\n");
    for (int descriptor = 3; descriptor < 64; ++descriptor)
        close(descriptor);
    const int database = open(".", O_TMPFILE | O_RDWR, 0600);
    for (int descriptor = 3; descriptor < 64; ++descriptor)
        if (descriptor != database)
            dup2(database, descriptor);
    MCReport(0);
    MCDebugMsg(1, "message\n");
    MCDeinit();
    struct stat status {};
    const bool intact = fstat(database, &status) == 0 && status.st_size == 0;
    const int left = std::system(("rm -r " + folder).c_str());
    return intact && left == 0 ? 0 : 1;
}
