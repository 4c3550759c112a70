/*
 * A source file that knows nothing of the descriptor checker, but for the few lines that watch what it
 * recorded: its own feature-test macro, and every way to come by a descriptor and to lose it.
 */
#define _GNU_SOURCE
#define _FORTIFY_SOURCE 2
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <k42mc/fdcheck.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "expect.h"

/* A member of such a name is fine as long as the call goes through (*member). */
static const struct functions {
    int (*open)(const char *, int, ...);
    int (*close)(int);
} table = {open, close};

static const FDInfo *info(int fd) {
    return &gFDITable[fd];
}

/* Whether the newest event of a descriptor is of this type and by this function. */
static int newest(int fd, unsigned type, const char *function) {
    const FDEvent *event = fd >= 0 && gFDITable && info(fd)->events ? SLLast(info(fd)->events) : NULL;
    return event && event->type == type && strcmp(event->name, function) == 0;
}

/* A history as the initials of its events. */
static const char *history(int fd) {
    static char text[100];
    char *end = text;
    for (const FDEvent *event = SLFirst(info(fd)->events); event;
         event = SLNext(info(fd)->events, event))
        *end++ = gFDEventType[event->type][0];
    *end = 0;
    return text;
}

#define OPENED(fd) EXPECT(newest(fd, FD_EV_OPEN, __func__))
#define CLOSED(fd) EXPECT(newest(fd, FD_EV_CLOSE, __func__))

static void opens(int fd) {
    EXPECT(newest(fd, FD_EV_OPEN, "descriptors"));
    close(fd);
    CLOSED(fd);
    EXPECT(info(fd)->alarms == 0);
}

static void descriptors(void) {
    char names[4][20];
    int fds[2];
    for (int i = 0; i < 4; ++i)
        strcpy(names[i], "/tmp/k42mcXXXXXX");
    sigset_t none;
    sigemptyset(&none);
    opens(open("/dev/null", O_RDONLY));
    opens(open("/tmp", O_TMPFILE | O_RDWR, 0600));
    opens(openat(AT_FDCWD, "/dev/null", O_RDONLY));
    opens(creat("/dev/null", 0600));
    opens(open64("/dev/null", O_RDONLY));
    opens(openat64(AT_FDCWD, "/dev/null", O_RDONLY));
    opens(creat64("/dev/null", 0600));
    opens(mkstemp(names[0])), opens(mkostemp(names[1], O_CLOEXEC));
    opens(mkstemp64(names[2])), opens(mkostemp64(names[3], O_CLOEXEC));
    opens(memfd_create("a", 0));
    opens(dup(0));
    opens(dup2(0, 20));
    opens(dup3(0, 21, O_CLOEXEC));
    EXPECT(pipe(fds) == 0);
    opens(fds[0]), opens(fds[1]);
    EXPECT(pipe2(fds, O_CLOEXEC) == 0);
    opens(fds[0]), opens(fds[1]);
    EXPECT(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    opens(fds[0]), opens(fds[1]);
    opens(socket(AF_UNIX, SOCK_STREAM, 0));
    opens(eventfd(0, 0));
    opens(epoll_create(1));
    opens(epoll_create1(0));
    opens(timerfd_create(CLOCK_MONOTONIC, 0));
    opens(inotify_init());
    opens(inotify_init1(0));
    const int signals = signalfd(-1, &none, 0);
    OPENED(signals);
    const unsigned before = info(signals)->opens;
    EXPECT(signalfd(signals, &none, 0) == signals && dup2(signals, signals) == signals);
    EXPECT(info(signals)->opens == before);
    opens(signals);
    for (int i = 0; i < 4; ++i)
        unlink(names[i]);

    errno = 0;
    EXPECT(open("/nowhere", O_RDONLY) == -1 && errno == ENOENT);
    EXPECT(pipe2(fds, -1) == -1 && errno == EINVAL);
}

static void connections(void) {
    struct sockaddr address = {.sa_family = AF_UNIX}; /* the system chooses a name */
    socklen_t size = sizeof(sa_family_t);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT(bind(listener, &address, size) == 0 && listen(listener, 2) == 0);
    size = sizeof address;
    EXPECT(getsockname(listener, &address, &size) == 0);
    for (int with_flags = 0; with_flags < 2; ++with_flags) {
        const int client = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT(connect(client, &address, size) == 0);
        const int server =
            with_flags ? accept4(listener, NULL, NULL, SOCK_CLOEXEC) : accept(listener, NULL, NULL);
        OPENED(server);
        close(client), close(server);
    }
    close(listener);
}

/* A number that no other part uses, for a history that is new, or that an alarm freezes. */
static int at(int number, int fd) {
    const int there = dup2(fd, number);
    close(fd);
    return there;
}

#define WRITES(fd, call) EXPECT((call) == 1 && newest(fd, FD_EV_WRITE, __func__))
#define READS(fd, call)  EXPECT((call) == 1 && newest(fd, FD_EV_READ, __func__))

static void elsewhere(int fd) {
    WRITES(fd, write(fd, "a", 1));
}

static void transfers(void) {
    char byte = 'a';
    struct iovec part = {&byte, 1};
    struct msghdr message = {.msg_iov = &part, .msg_iovlen = 1};
    int fds[2];
    EXPECT(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
    WRITES(fds[0], write(fds[0], &byte, 1));
    READS(fds[1], read(fds[1], &byte, 1));
    WRITES(fds[0], writev(fds[0], &part, 1));
    READS(fds[1], readv(fds[1], &part, 1));
    WRITES(fds[0], send(fds[0], &byte, 1, 0));
    READS(fds[1], recv(fds[1], &byte, 1, 0));
    WRITES(fds[0], sendto(fds[0], &byte, 1, 0, NULL, 0));
    READS(fds[1], recvfrom(fds[1], &byte, 1, 0, NULL, NULL));
    WRITES(fds[0], sendmsg(fds[0], &message, 0));
    READS(fds[1], recvmsg(fds[1], &message, 0));
    WRITES(file, pwrite(file, &byte, 1, 0));
    READS(file, pread(file, &byte, 1, 0));
    WRITES(file, pwrite64(file, &byte, 1, 0));
    READS(file, pread64(file, &byte, 1, 0));
    WRITES(file, write(file, &byte, 1));
    EXPECT(read(file, &byte, 1) == 0 && newest(file, FD_EV_READ, __func__));
    /* The newest of each kind since the last open or close stays. */
    fds[0] = at(50, fds[0]), fds[1] = at(51, fds[1]);
    for (int i = 0; i < 100; ++i) {
        WRITES(fds[0], write(fds[0], &byte, 1));
        READS(fds[1], read(fds[1], &byte, 1));
        WRITES(fds[1], write(fds[1], &byte, 1));
        READS(fds[0], read(fds[0], &byte, 1));
    }
    EXPECT(strcmp(history(fds[0]), "OWR") == 0);
    EXPECT(strcmp(history(fds[1]), "ORW") == 0);
    for (int i = 0; i < 20; ++i) {
        dup2(file, fds[1]);
        WRITES(fds[1], write(fds[1], &byte, 1));
        elsewhere(fds[1]);
    }
    EXPECT(strcmp(history(fds[1]), "WOWOWOWOWOWOWOWOWOWOW") == 0 && info(fds[1])->opens == 21);
    close(file), close(fds[0]), close(fds[1]);
    errno = 0;
    EXPECT(read(file, &byte, 1) == -1 && errno == EBADF && newest(file, FD_EV_CLOSE, __func__));
}

static void streams(void) {
    FILE *stream;
    int fd;
    for (int wide = 0; wide < 2; ++wide) {
        stream = wide ? fopen64("/dev/null", "r") : fopen("/dev/null", "r");
        fd = fileno(stream);
        OPENED(fd);
        stream = wide ? freopen64("/dev/zero", "r", stream) : freopen("/dev/zero", "r", stream);
        OPENED(fd);
        EXPECT(info(fd)->opens == info(fd)->closes + 1);
        fclose(stream);
        CLOSED(fd);
    }
    fd = open("/dev/null", O_RDONLY);
    stream = fdopen(fd, "r");
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && fclose(stream) == 0);
    stream = tmpfile();
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && fclose(stream) == 0);
    stream = tmpfile64();
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && fclose(stream) == 0);
    char text[4];
    stream = fmemopen(text, sizeof text, "w"); /* a stream without descriptor */
    errno = 0;
    EXPECT(k42mcx_fd_closing_stream(__func__, stream) == stream && errno == 0);
    (fclose)(stream);
    stream = popen("exit 3", "r");
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && pclose(stream) == 3 << 8);
    DIR *directory = opendir("/tmp");
    EXPECT(newest(dirfd(directory), FD_EV_OPEN, __func__) && closedir(directory) == 0);
    directory = fdopendir(open("/tmp", O_RDONLY | O_DIRECTORY));
    EXPECT(newest(dirfd(directory), FD_EV_OPEN, __func__) && closedir(directory) == 0);
    EXPECT(fopen("/nowhere", "r") == NULL && opendir("/nowhere") == NULL && errno == ENOENT);
}

static void double_closes(void) {
    close(at(30, open("/dev/null", O_RDONLY)));
    EXPECT(info(30)->alarms == 0 && close(30) == -1 && errno == EBADF && info(30)->alarms == 1);

    FILE *stream = fdopen(at(31, open("/dev/null", O_RDONLY)), "r");
    DIR *directory = fdopendir(at(32, open("/tmp", O_RDONLY | O_DIRECTORY)));
    FILE *volatile closed_stream = stream;
    DIR *volatile closed_directory = directory;
    fclose(stream), closedir(directory);
    EXPECT(info(31)->alarms == 0 && info(32)->alarms == 0);
    errno = 0;
    EXPECT(fclose(closed_stream) == EOF && errno == EBADF && info(31)->alarms == 1);
    errno = 0;
    EXPECT(closedir(closed_directory) == -1 && errno == EBADF && info(32)->alarms == 1);

    /* The number has a new owner by then. */
    closed_stream = stream = fdopen(at(33, open("/dev/null", O_RDONLY)), "r");
    fclose(stream);
    at(33, open("/dev/null", O_RDONLY));
    EXPECT(fclose(closed_stream) == EOF && info(33)->alarms == 1 && close(33) == 0);

    /* A stream whose memory stays. */
    FILE *volatile input = stdin;
    fclose(stdin);
    errno = 0;
    EXPECT(info(0)->alarms == 0 && fclose(input) == EOF && errno == EBADF && info(0)->alarms == 1);

    /* What has been counted stays right behind an alarm. */
    const FDInfo before = *info(33);
    EXPECT(close(at(33, open("/dev/null", O_RDONLY))) == 0 && fclose(closed_stream) == EOF);
    EXPECT(info(33)->opens == before.opens + 1 && info(33)->closes == before.closes + 2);
}

/* What must not raise an alarm. */
static void healthy(void) {
    for (int round = 0; round < 3; ++round) {
        const int unseen = (dup2)(0, 40);
        close(unseen);
        FILE *stream = (fopen)("/dev/null", "r");
        const int fd = fileno(stream);
        fclose(stream);
        EXPECT(info(unseen)->alarms == 0 && info(fd)->alarms == 0);
        FILE *same_place = fopen("/dev/null", "r");
        fclose(same_place);
        DIR *directory = (opendir)("/tmp");
        closedir(directory);
        EXPECT(info(fd)->alarms == 0);
    }
    const int fd = (*table.open)("/dev/null", O_RDONLY);
    (*table.close)(fd);
    /* A child of vfork works on its parent's memory, but not on its descriptors. */
    for (int round = 0; round < 4; ++round) {
        const int null = open("/dev/null", O_RDWR);
        const pid_t child = vfork();
        if (child == 0) {
            dup2(null, 1);
            close(null);
            _exit(0);
        }
        EXPECT(waitpid(child, NULL, 0) == child && newest(null, FD_EV_OPEN, __func__));
        close(null);
    }
    for (int standard = 0; standard < 3; ++standard)
        EXPECT(info(standard)->events == NULL);
}

int main(void) {
    descriptors();
    connections();
    transfers();
    streams();
    healthy();
    double_closes();
    return faults != 0;
}
