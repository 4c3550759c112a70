/*
 * What a program that runs for long asks of the checker. It stands for a server: it answers requests, loses
 * the memory of every fourth, and reports after each thousand.
 */
#include <fcntl.h>
#include <k42mc/k42mc.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <k42mc/redirect.h>

static char settings[256];
static char *lost;

static int load(const char *path) {
    int fd = open(path, O_RDONLY);
    FDOpen("load", fd);
    ssize_t length = read(fd, settings, sizeof settings);
    FDClose("load", fd); /* before close: after it, another thread may have the number */
    close(fd);
    return length >= 0;
}

static void answer(unsigned request) {
    char *text = malloc(96);
    memset(text, 'a', 96);
    if (request % 4 == 0)
        lost = text;
    else
        free(text);
}

static void serve(unsigned most) {
    unsigned requests = 0;
    while (requests < most) {
        answer(requests);
        if (++requests % 1000 == 0)
            MCReport(K42MC_BE32(2));
    }
}

int main(int argc, char **argv) {
    MCInit(K42MC_BE32(MC_TO_FILE), K42MC_BE32(MC_TYPE_LKBF));
    if (!load(argc > 1 ? argv[1] : "/etc/hostname"))
        return 1;

    /* What the start has allocated is no longer listed. */
    MCInit(K42MC_BE32(0), K42MC_BE32(MC_TYPE_LK_RESET));
    k42mcx_report_on_signal(SIGUSR2, 2);
    serve(3000);

    /* From here on, blocks get a stack trace if they are like the ones that are lost, and no others. */
    MCInit(K42MC_BE32(0), K42MC_BE32(MC_TYPE_LKBF | MC_TYPE_BT_OFF));
    char site[] = "examples/requests.c:27:LK:STD:0x55EEDD536ED0:96:2";
    MCBTFilterIn(site);
    serve(3000);
    MCCheck(K42MC_BE_ADDR(lost));
}
