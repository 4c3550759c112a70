/*
 * Reports the descriptors that a C source file opens, closes, reads and writes to the descriptor
 * checker, with the name of the calling function as operator. The source knows nothing of it.
 *
 *   opened, once that succeeded
 *     open openat creat mkstemp mkostemp memfd_create dup dup2 dup3 pipe pipe2
 *     socket accept accept4 socketpair eventfd epoll_create epoll_create1 timerfd_create signalfd
 *     inotify_init inotify_init1 fopen freopen fdopen tmpfile popen opendir fdopendir
 *   closed, before it happens
 *     close fclose freopen pclose closedir
 *   used, once that succeeded; of the reads, and of the writes, between opens and closes the last stays
 *     read pread readv recv recvfrom recvmsg write pwrite writev send sendto sendmsg
 *
 * and what libc calls these with 64 behind. dup2 and dup3 report the new number as opened; that they
 * close what it was before is no event of its own. A stream or directory that is closed twice is
 * reported as a second close of its descriptor, and libc, which would stop the process or worse, does
 * not see it: the call fails with EBADF.
 *
 * What it does not see:
 *   - calls in parentheses, through pointers and tables of functions, and in libraries;
 *   - what streams read and write;
 *   - descriptors from elsewhere: inherited ones, those that fcntl makes or a message brings. Ahead of
 *     their close an open by "(not routed)" is recorded where it is needed to keep the alarm away;
 *   - that exec and exit close descriptors;
 *   - what a child of vfork does ahead of exec: its descriptors are not its parent's;
 *   - C++, where these are names of methods: call FDOpen and FDClose (fdcheck.h) there.
 *
 * For whole programs, compile every source with the flags of `pkg-config --cflags k42mc_r-redirect-fd`
 * or the CMake target k42mc::redirect_fd, beside those for memory or without. They include this file
 * first, and put wrappers of the system headers ahead, which set the macros aside while a system header
 * declares its functions; so the source's own feature-test macros keep working. By hand, include this
 * file after the system headers, or at least after feature-test macros: it includes those that declare
 * the names.
 *
 * A signal handler that may interrupt an allocation must not report: put the name in parentheses there,
 * (write)(fd, "", 1), or leave that source out.
 *
 * Where a name is followed by a parenthesis and is no call of libc's function (a struct member called
 * like one, the definition of a function of the name), the macro is in the way: compile that source with
 * -DK42MC_FD_NO_REDIRECT_<name>, or put an #undef in it.
 *
 * _FORTIFY_SOURCE is switched off: its variants of the functions are macros and inline functions, too.
 */
#ifndef K42MC_REDIRECT_FD_H
#define K42MC_REDIRECT_FD_H

#if !defined __ASSEMBLER__ && !defined __cplusplus
#pragma GCC system_header

#undef _FORTIFY_SOURCE

#include <k42mc/extra.h>

#if !__has_include(<k42mc_fd_suspend.h>)

/* Without the wrappers, whatever declares the names has to come before the macros. */
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#endif

/* Around a call that returns a descriptor, a stream, a directory. */
#ifndef K42MC_FD_NO_REDIRECT_open
#define open(...) k42mcx_fd_opened(__func__, (open)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_open64
#define open64(...) k42mcx_fd_opened(__func__, (open64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_openat
#define openat(...) k42mcx_fd_opened(__func__, (openat)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_openat64
#define openat64(...) k42mcx_fd_opened(__func__, (openat64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_creat
#define creat(...) k42mcx_fd_opened(__func__, (creat)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_creat64
#define creat64(...) k42mcx_fd_opened(__func__, (creat64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_mkstemp
#define mkstemp(...) k42mcx_fd_opened(__func__, (mkstemp)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_mkstemp64
#define mkstemp64(...) k42mcx_fd_opened(__func__, (mkstemp64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_mkostemp
#define mkostemp(...) k42mcx_fd_opened(__func__, (mkostemp)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_mkostemp64
#define mkostemp64(...) k42mcx_fd_opened(__func__, (mkostemp64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_memfd_create
#define memfd_create(...) k42mcx_fd_opened(__func__, (memfd_create)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_dup
#define dup(...) k42mcx_fd_opened(__func__, (dup)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_socket
#define socket(...) k42mcx_fd_opened(__func__, (socket)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_accept
#define accept(...) k42mcx_fd_opened(__func__, (accept)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_accept4
#define accept4(...) k42mcx_fd_opened(__func__, (accept4)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_eventfd
#define eventfd(...) k42mcx_fd_opened(__func__, (eventfd)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_epoll_create
#define epoll_create(...) k42mcx_fd_opened(__func__, (epoll_create)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_epoll_create1
#define epoll_create1(...) k42mcx_fd_opened(__func__, (epoll_create1)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_timerfd_create
#define timerfd_create(...) k42mcx_fd_opened(__func__, (timerfd_create)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_inotify_init
#define inotify_init(...) k42mcx_fd_opened(__func__, (inotify_init)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_inotify_init1
#define inotify_init1(...) k42mcx_fd_opened(__func__, (inotify_init1)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_fopen
#define fopen(...) k42mcx_fd_opened_stream(__func__, (fopen)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_fopen64
#define fopen64(...) k42mcx_fd_opened_stream(__func__, (fopen64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_fdopen
#define fdopen(...) k42mcx_fd_opened_stream(__func__, (fdopen)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_tmpfile
#define tmpfile(...) k42mcx_fd_opened_stream(__func__, (tmpfile)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_tmpfile64
#define tmpfile64(...) k42mcx_fd_opened_stream(__func__, (tmpfile64)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_popen
#define popen(...) k42mcx_fd_opened_stream(__func__, (popen)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_opendir
#define opendir(...) k42mcx_fd_opened_directory(__func__, (opendir)(__VA_ARGS__))
#endif
#ifndef K42MC_FD_NO_REDIRECT_fdopendir
#define fdopendir(...) k42mcx_fd_opened_directory(__func__, (fdopendir)(__VA_ARGS__))
#endif

/* These open a descriptor only if they return another than they were given. */
#define K42MC_FD_OTHER(call, given, ...)                                                                \
    __extension__({                                                                                     \
        int k42mc_given = (given);                                                                      \
        int k42mc_result = (call)(k42mc_given, __VA_ARGS__);                                            \
        k42mc_result == k42mc_given ? k42mc_result : k42mcx_fd_opened(__func__, k42mc_result);          \
    })
#ifndef K42MC_FD_NO_REDIRECT_dup2
#define dup2(...) K42MC_FD_OTHER(dup2, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_dup3
#define dup3(...) K42MC_FD_OTHER(dup3, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_signalfd
#define signalfd(...) K42MC_FD_OTHER(signalfd, __VA_ARGS__)
#endif

/* Descriptors come in an array, which is the last argument of all but pipe2. */
#define K42MC_FD_PAIR(fds, call)                                                                        \
    __extension__({                                                                                     \
        int *k42mc_fds = (fds);                                                                         \
        k42mcx_fd_opened_pair(__func__, k42mc_fds, call);                                               \
    })
#ifndef K42MC_FD_NO_REDIRECT_pipe
#define pipe(fds) K42MC_FD_PAIR(fds, (pipe)(k42mc_fds))
#endif
#ifndef K42MC_FD_NO_REDIRECT_pipe2
#define pipe2(fds, flags) K42MC_FD_PAIR(fds, (pipe2)(k42mc_fds, flags))
#endif
#ifndef K42MC_FD_NO_REDIRECT_socketpair
#define socketpair(domain, type, protocol, fds)                                                         \
    K42MC_FD_PAIR(fds, (socketpair)(domain, type, protocol, k42mc_fds))
#endif

/* 2 and 3: FD_EV_READ and FD_EV_WRITE. */
#define K42MC_FD_USE(type, call, fd, ...)                                                               \
    __extension__({                                                                                     \
        int k42mc_fd = (fd);                                                                            \
        k42mcx_fd_used(__func__, k42mc_fd, type, (call)(k42mc_fd, __VA_ARGS__));                        \
    })
#ifndef K42MC_FD_NO_REDIRECT_read
#define read(...) K42MC_FD_USE(2, read, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_pread
#define pread(...) K42MC_FD_USE(2, pread, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_pread64
#define pread64(...) K42MC_FD_USE(2, pread64, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_readv
#define readv(...) K42MC_FD_USE(2, readv, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_recv
#define recv(...) K42MC_FD_USE(2, recv, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_recvfrom
#define recvfrom(...) K42MC_FD_USE(2, recvfrom, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_recvmsg
#define recvmsg(...) K42MC_FD_USE(2, recvmsg, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_write
#define write(...) K42MC_FD_USE(3, write, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_pwrite
#define pwrite(...) K42MC_FD_USE(3, pwrite, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_pwrite64
#define pwrite64(...) K42MC_FD_USE(3, pwrite64, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_writev
#define writev(...) K42MC_FD_USE(3, writev, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_send
#define send(...) K42MC_FD_USE(3, send, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_sendto
#define sendto(...) K42MC_FD_USE(3, sendto, __VA_ARGS__)
#endif
#ifndef K42MC_FD_NO_REDIRECT_sendmsg
#define sendmsg(...) K42MC_FD_USE(3, sendmsg, __VA_ARGS__)
#endif

#ifndef K42MC_FD_NO_REDIRECT_close
#define close(fd) (close)(k42mcx_fd_closing(__func__, fd))
#endif
#ifndef K42MC_FD_NO_REDIRECT_fclose
#define fclose(stream) k42mcx_fd_fclose(__func__, stream)
#endif
#ifndef K42MC_FD_NO_REDIRECT_pclose
#define pclose(stream) k42mcx_fd_pclose(__func__, stream)
#endif
#ifndef K42MC_FD_NO_REDIRECT_closedir
#define closedir(directory) k42mcx_fd_closedir(__func__, directory)
#endif
#ifndef K42MC_FD_NO_REDIRECT_freopen
#define freopen(path, mode, stream)                                                                     \
    k42mcx_fd_opened_stream(__func__, (freopen)(path, mode, k42mcx_fd_closing_stream(__func__, stream)))
#endif
#ifndef K42MC_FD_NO_REDIRECT_freopen64
#define freopen64(path, mode, stream)                                                                   \
    k42mcx_fd_opened_stream(__func__,                                                                   \
                            (freopen64)(path, mode, k42mcx_fd_closing_stream(__func__, stream)))
#endif

#endif

#endif
