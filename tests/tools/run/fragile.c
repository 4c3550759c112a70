/* One function for each way in which a program can take it that memory runs out. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define APART __attribute__((noinline))

APART static void crash(void) {
    volatile char *block = malloc(10);
    *block = 1;
    free((void *)block);
}

APART static void hang(void) {
    void *volatile block = malloc(11);
    while (block == NULL)
        pause();
    free(block);
}

APART static void lose_here(void) {
    void *volatile first = malloc(12);
    void *volatile second = malloc(13);
    if (second != NULL || first == NULL)
        free(first);
    free(second);
}

/* Deep on the stack, where nothing is left of the address later on. */
APART static void lose(void) {
    volatile char above[1 << 16];
    memset((char *)above, 0, sizeof above);
    lose_here();
    (void)above[0];
}

APART static void damage(void) {
    volatile char *name = malloc(4);
    void *volatile copy = malloc(14);
    if (copy == NULL)
        name[4] = 0;
    free(copy);
    free((void *)name);
}

APART static void go_wrong(void) {
    void *volatile block = malloc(15);
    puts(block != NULL ? "all of it" : "a part of it");
    free(block);
}

APART static void ignore(void) {
    void *volatile block = malloc(16);
    free(block);
}

APART static void handle(void) {
    void *volatile block = malloc(17);
    if (block == NULL) {
        fputs("fragile: no memory\n", stderr);
        exit(3);
    }
    free(block);
}

APART static void let_child_handle(void) {
    if (fork() == 0)
        handle();
    else
        wait(NULL);
}

static void *handle_in_thread(void *argument) {
    handle();
    return argument;
}

static void let_thread_handle(void) {
    pthread_t thread;
    if (pthread_create(&thread, NULL, handle_in_thread, NULL) == 0)
        pthread_join(thread, NULL);
}

static void tell(int failed) {
    if (failed)
        puts(strerror(errno));
}

APART static void try_open(void) {
    const int file = open("/dev/null", O_RDONLY);
    tell(file < 0);
    close(file);
}

APART static void try_pipe(void) {
    int ends[2];
    tell(pipe(ends) != 0);
}

APART static void try_opendir(void) {
    DIR *folder = opendir("/");
    tell(folder == NULL);
    if (folder != NULL)
        closedir(folder);
}

static const struct {
    const char *name;
    void (*act)(void);
} ways[] = {{"crash", crash},
            {"hang", hang},
            {"lose", lose},
            {"damage", damage},
            {"wrong", go_wrong},
            {"ignore", ignore},
            {"handle", handle},
            {"child", let_child_handle},
            {"thread", let_thread_handle},
            {"open", try_open},
            {"pipe", try_pipe},
            {"opendir", try_opendir}};

/* "date" prints what differs each time, "file" needs a file that is not there any more in the next run, without which "once"
   does nothing, "input" repeats its input, and "leave" leaves a process behind. */
int main(int count, char **words) {
    for (int i = 1; i < count; ++i) {
        for (size_t way = 0; way < sizeof ways / sizeof *ways; ++way)
            if (strcmp(words[i], ways[way].name) == 0)
                ways[way].act();
        if (strcmp(words[i], "date") == 0)
            printf("%d\n", getpid());
        if (strcmp(words[i], "file") == 0 && unlink("file") != 0)
            return 4;
        if (strcmp(words[i], "once") == 0 && unlink("file") == 0)
            ignore();
        if (strcmp(words[i], "leave") == 0 && fork() == 0)
            for (;;)
                pause();
        if (strcmp(words[i], "input") == 0)
            for (int letter; (letter = getchar()) != EOF;)
                putchar(letter);
    }
    return 0;
}
