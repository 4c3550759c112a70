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
#include <unistd.h>

static int faults;

#define EXPECT(condition)                                                                               \
    do {                                                                                                \
        if (!(condition)) {                                                                             \
            printf("%s:%d: not so: %s\n", __FILE__, __LINE__, #condition);                              \
            faults++;                                                                                   \
        }                                                                                               \
    } while (0)

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

#define OPENED(fd) EXPECT(newest(fd, FD_EV_OPEN, __func__))
#define CLOSED(fd) EXPECT(newest(fd, FD_EV_CLOSE, __func__))

static void opens(int fd) {
    EXPECT(newest(fd, FD_EV_OPEN, "descriptors"));
    close(fd);
    CLOSED(fd);
    EXPECT(info(fd)->alarms == 0);
}

static void descriptors(void) {
    char name[] = "/tmp/k42mcXXXXXX", other[] = "/tmp/k42mcXXXXXX";
    int fds[2];
    sigset_t none;
    sigemptyset(&none);
    opens(open("/dev/null", O_RDONLY));
    opens(open("/tmp", O_TMPFILE | O_RDWR, 0600));
    opens(openat(AT_FDCWD, "/dev/null", O_RDONLY));
    opens(creat("/dev/null", 0600));
    opens(mkstemp(name));
    opens(mkostemp(other, O_CLOEXEC));
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
    unlink(name), unlink(other);

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

static void transfers(void) {
    char byte = 'a';
    struct iovec part = {&byte, 1};
    struct msghdr message = {.msg_iov = &part, .msg_iovlen = 1};
    int fds[2];
    EXPECT(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    const int file = open("/tmp", O_TMPFILE | O_RDWR, 0600);
#define WRITES(fd, call) EXPECT((call) == 1 && newest(fd, FD_EV_WRITE, __func__))
#define READS(fd, call)  EXPECT((call) == 1 && newest(fd, FD_EV_READ, __func__))
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
    close(file), close(fds[0]), close(fds[1]);
    errno = 0;
    EXPECT(read(file, &byte, 1) == -1 && errno == EBADF && newest(file, FD_EV_CLOSE, __func__));
}

static void streams(void) {
    FILE *stream = fopen("/dev/null", "r");
    int fd = fileno(stream);
    OPENED(fd);
    stream = freopen("/dev/zero", "r", stream);
    OPENED(fd);
    EXPECT(info(fd)->opens == info(fd)->closes + 1);
    fclose(stream);
    CLOSED(fd);
    fd = open("/dev/null", O_RDONLY);
    stream = fdopen(fd, "r");
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && fclose(stream) == 0);
    stream = tmpfile();
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && fclose(stream) == 0);
    stream = popen("exit 3", "r");
    EXPECT(newest(fileno(stream), FD_EV_OPEN, __func__) && pclose(stream) == 3 << 8);
    DIR *directory = opendir("/tmp");
    EXPECT(newest(dirfd(directory), FD_EV_OPEN, __func__) && closedir(directory) == 0);
    directory = fdopendir(open("/tmp", O_RDONLY | O_DIRECTORY));
    EXPECT(newest(dirfd(directory), FD_EV_OPEN, __func__) && closedir(directory) == 0);
    EXPECT(fopen("/nowhere", "r") == NULL && opendir("/nowhere") == NULL && errno == ENOENT);
}

/* A number that no other part uses, so that a history frozen by an alarm is in nobody's way. */
static int at(int number, int fd) {
    const int there = dup2(fd, number);
    close(fd);
    return there;
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
