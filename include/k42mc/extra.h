/*
 * Additions, all named k42mcx_. They never change what the other functions do. What alloc.h says of all
 * wrappers holds for these too.
 */
#ifndef K42MC_EXTRA_H
#define K42MC_EXTRA_H

#include <k42mc/alloc.h>
#include <k42mc/base.h>

K42MC_BEGIN_DECLS

/* ---- Blocks of any type, for allocators of your own (new.hpp is one) ---- */

/*
 * Allocates size bytes from the standard allocator as a block of the given type, whose arena is the
 * type plus 1.
 *   type       MC_STD, MC_SYS, MC_FIX or MC_VAR.
 *   alignment  In bytes: 1 for none, else a power of two from the size of a pointer to K42MC_ALIGN_MAX.
 * Returns the block, or null with errno ENOMEM or EINVAL.
 */
void *k42mcx_alloc(const char *file, int line, int type, size_t alignment, size_t size) K42MC_SIZE_IS(5);

/* Releases a block that k42mcx_alloc handed out under this type. Null is ignored. */
void k42mcx_free(const char *file, int line, int type, void *ptr);

/* ---- Checks and reports on request ----
 *
 * Any thread may call these. Limits are numbers in host byte order: a block is reported once it has
 * survived that many report cycles; 0 reports all.
 */

/*
 * Compares the guards of every live recorded block with what they should be. Damage does not stop the
 * process: each damaged block gets a line on the sink, "file:line:WO:type:0xADDRESS:size:cycles", or WU
 * for an underrun, and the trace of its allocation. Returns how many are damaged; 0, with a message on
 * standard error, while the checker is off. Takes the checker's lock; allocates nothing.
 */
unsigned k42mcx_verify(void);

/*
 * Looks which of the recorded blocks that have survived `limit` reports no pointer leads to any more, and lists them:
 * "file:line:LB:type:0xADDRESS:size:cycles" for a block that nothing leads to, with the trace of its allocation, and
 * behind it, with LI in place of LB, those that only it and others of the list lead to. Counts as no cycle.
 *
 * A block is held as long as an address in it stands in the data of a module, on a thread's stack, in a register, in
 * thread-local memory, in other memory that the process has mapped, in the data of an epoll instance or the value of a
 * timer, or in a block that is held. Marks in the lowest three bits, and in the highest 16 of 64, do not matter. What
 * libc's allocator keeps as free holds nothing.
 *
 * Other threads stand still for some milliseconds; the search itself is done in a copy of the process, and this thread
 * waits for it. Returns how many were listed; 0, with a message on standard error, while the checker is off, where a
 * thread does not stop, or where the system does not tell what threads and memory the process has (no /proc). Takes the
 * checker's lock; allocates nothing but memory mapped for the search.
 */
size_t k42mcx_lost(__UINT32_TYPE__ limit);

/*
 * A mark behind all blocks that are recorded so far, for k42mcx_since. Takes no lock; 0 before the checker was ever on.
 */
__UINT64_TYPE__ k42mcx_mark(void);

/*
 * What is left of the blocks that were recorded since a mark: lists them on the report sink, oldest first, each by a line
 * "file:line:LK:type:0xADDRESS:size:cycles" and the trace of its allocation. A reallocation counts as a new block. Counts as
 * no cycle, so that a test program can ask at the end of each of its parts.
 *   mark   From k42mcx_mark; 0 for all.
 *   bytes  Gets how many bytes they have; null for none.
 * Returns how many there are; 0, with a message on standard error, while the checker is off. Takes the checker's lock;
 * allocates nothing.
 */
size_t k42mcx_since(__UINT64_TYPE__ mark, size_t *bytes);

/*
 * A block, as the next two functions tell of it. The code is LK; or WO, WU for one with damaged guards, WF for one that
 * was written to after its release, whose site is that of the release. The site's file is the pointer that a wrapper was
 * given.
 */
typedef struct {
    const char *file;
    int line;
    const char *code;
    const char *type; /* "STD", "FIX" ... */
    const void *address;
    size_t size;          /* in bytes */
    int is_kept;          /* 1 after k42mcx_keep, and if it came under k42mcx_unlisted */
    unsigned frame_count; /* of the trace of the allocation */
    void *frames[16];     /* innermost first */
} k42mcx_block;

/*
 * Copies what is left of the blocks that were recorded from one mark to another, oldest first. A reallocation counts as a
 * new block. Counts as no cycle.
 *   from, to  From k42mcx_mark; 0 and UINT64_MAX for all.
 *   blocks    Gets the first ones, `room` at most; null where room is 0.
 * Returns how many there are, be they more than there is room for; 0, with a message on standard error, while the checker
 * is off. Takes the checker's lock; allocates nothing.
 */
size_t k42mcx_blocks(__UINT64_TYPE__ from, __UINT64_TYPE__ to, k42mcx_block *blocks, size_t room);

/* The same for what k42mcx_verify lists. */
size_t k42mcx_damaged(k42mcx_block *blocks, size_t room);

/*
 * Puts the line of a frame, "module(function+0xoffset) [0xaddress]", without the function or the module where none is
 * known.
 *   text  Gets the line, with a terminator.
 *   size  Of text, in bytes.
 * Returns the line's length; 0 where it has no room. Takes no lock; allocates nothing.
 */
size_t k42mcx_symbol(const void *frame, char *text, size_t size);

/*
 * Says on the report sink what holds the recorded block at an address, or around it: the shortest chain of pointers that
 * leads there. It begins with what the first pointer lies in, "variable `sessions` in server+0x40c0 leads to", the stack
 * of a thread with the function whose frame it is, a register, thread-local memory, or other memory; then come the blocks
 * on the way as "file:line:HB:type:0xADDRESS:size:cycles", each with the byte at which the pointer to the next one lies,
 * and the trace of the last one's allocation. Of a chain of more than 32 blocks, the first and the last 16 are listed. A
 * block that nothing leads to has LB in place of HB.
 *
 * What the calling thread has on its stack and in its registers counts where nothing else holds the block. Looks at the
 * process as k42mcx_lost does. Returns 0 for a block that is held, 1 for one that is lost; -1, with a message on standard
 * error, where no recorded block is there, or for what makes k42mcx_lost return 0. Takes the checker's lock; allocates
 * nothing but memory mapped for the search.
 */
int k42mcx_why(const void *address);

/* ---- What a search for lost blocks cannot know ----
 *
 * A program says it of blocks whose addresses stand nowhere as they are: encoded, or kept by a device, another process
 * or the kernel. Any thread may call these, with the checker on or off.
 */

/*
 * The recorded block that an address lies in, the innermost where blocks lie in one another, is never lost from now on,
 * nor is what it leads to. It stays so through reallocations, until it is released or the checker is switched off.
 * Returns 1 if there is such a block, else 0; 0 while the checker is off. Takes the checker's lock. Quick for the
 * address of a block; one in no block is looked for among all that begin below.
 */
int k42mcx_keep(const void *address);

/*
 * The blocks that pointers in these `size` bytes lead to are not lost, wherever the bytes lie: in a block that is lost
 * itself, in memory that cannot be written to or that other processes share. Memory that is gone, or cannot be read,
 * when somebody looks has none, and nothing else happens. The library notes the place and never writes there; it goes
 * on knowing it while the checker is off and on again, and in forked children.
 *   begin  Pointers count that stand at multiples of their size, as everywhere.
 * Returns 0 or an errno value: EINVAL for a region that passes the end of memory, ENOMEM. Takes the checker's lock;
 * allocates nothing but memory mapped for the list.
 */
int k42mcx_root(const void *begin, size_t size);

/*
 * Takes back one k42mcx_root of the same begin and size: a region that was named twice stays one until it is taken back
 * twice. Returns 0, or EINVAL where there is none. Takes the checker's lock, and looks through the list.
 */
int k42mcx_unroot(const void *begin, size_t size);

/*
 * Blocks that the calling thread allocates from now on are never lost, as by k42mcx_keep: 1 begins that, 0 ends it.
 * Such calls nest; a 0 too many does nothing. Takes no lock.
 */
void k42mcx_unlisted(int on);

/*
 * Writes what a report would say as JSON, one object per line, without counting as a cycle: a "cycle", a
 * "site" for each site and stack trace that holds blocks (most bytes first) or has allocated most, a "damage" for each damaged
 * block, however many reports it has survived, and an "end". The checker's lock is released before
 * anything is written.
 *   fd  Open for writing; stays open.
 * Returns 0, or -1 with errno: EBADF; ENOMEM, with nothing written; EINVAL, with a message on standard
 * error, while the checker is off; or what write sets.
 */
int k42mcx_report_json(int fd, __UINT32_TYPE__ limit);

#define K42MCX_DEEP 64

/*
 * Stack traces of blocks that are recorded from now on have up to so many frames in JSON, and tell sites apart by them. The
 * lines of text show 16, as ever.
 *   frames  16, which is what they have at first, to K42MCX_DEEP. More than 16 cost a second walk of the stack for each block
 *           that comes from so deep, and memory that stays: 400 bytes (200 on 32 bits) for each of up to 65,535 different
 *           ends of such traces; those beyond have 16 frames.
 * Returns 0 or EINVAL. Takes no lock.
 */
int k42mcx_depth(int frames);

#define K42MCX_EXIT_VERIFY 1
#define K42MCX_EXIT_JSON   2
#define K42MCX_EXIT_LOST   4

/*
 * Asks for more than the report at exit. K42MCX_EXIT_VERIFY: k42mcx_verify before it.
 * K42MCX_EXIT_JSON: all blocks as JSON after it, in a file beside the report file, with ".json" in place
 * of ".txt". K42MCX_EXIT_LOST: k42mcx_lost(0) after the report, and in the JSON, beside "blocks" and "bytes" of each site,
 * what is "lost" and what is lost with that ("indirect"). 0 cancels all. Takes no lock.
 */
void k42mcx_at_exit(__UINT32_TYPE__ flags);

/*
 * Calls MCReport with the limit each time the signal arrives, from a thread that the first call starts;
 * the signal's action is replaced. Signals that arrive before a requested report is written are merged
 * with it. A second call for the same signal changes the limit, one for another signal adds that signal.
 * A forked child has no such thread: it ignores the signals until it calls this function itself. The
 * library stays loaded from then on.
 * Returns 0 or an errno value: EINVAL for a signal that cannot be caught, EAGAIN without a thread.
 */
int k42mcx_report_on_signal(int signo, __UINT32_TYPE__ limit);

/*
 * Tries this folder for report files before the usual ones, and makes it if it is missing. A file there
 * is never truncated: where the name is taken, "-1", "-2" ... is put in front of the extension. A report
 * file that is already open stays in use.
 *   path  Copied. Null goes back to the usual folders.
 * Returns 0 or an errno value: ENAMETOOLONG for PATH_MAX bytes or more. Takes the checker's lock.
 */
int k42mcx_report_folder(const char *path);

/* ---- Pages of their own ---- */

#define K42MCX_PAGES_END   0 /* the block's last byte at the end of a page */
#define K42MCX_PAGES_START 1 /* its first byte at the start of one */
#define K42MCX_PAGES_MIXED 2 /* now this, now that, at random */
#define K42MCX_PAGES_GO_ON 4 /* tell of each block once, and let the process go on */
#define K42MCX_PAGES_EXACT                                                                              \
    8 /* at the end: the very last byte, whatever that does to the block's alignment */

/*
 * From now on one of so many allocations of the standard family, chosen at random in each thread, gets pages of its own,
 * of up to 1 MiB and aligned to a page at most. The page behind it cannot be touched, nor can the one ahead, nor, once
 * the block is released, its own: an access there ends the process at that moment, with a line on standard output that
 * has the code RO, RU or RF for a read past the end, ahead of the start, or of a released block, and WO, WU or WF for a
 * write, and with the traces of the access, the allocation and the release on standard error. The rest of the block's
 * pages is filled and compared as guards are. Records, reports and releases are as for every block.
 *   one_in  1 for every block; 0 for none from now on.
 *   flags   K42MCX_PAGES_*. The alignment is what was asked for, else 16 bytes (8 on 32 bits), or for a smaller block the
 *           largest power of two that fits into it.
 *
 * The first call takes addresses for good: for 512 MiB of memory in all, from one in 1,000 on for 64 MiB (on 32 bits,
 * 256 and 64 MiB of addresses). Blocks that find no room there are guarded as usual. Released pages are used again in
 * the order of their release. The first call also takes over SIGSEGV and SIGBUS: other faults go to the handler that was
 * there, or to what the system does. A handler that is set later, past k42mc run, takes their place.
 *
 * Returns 0 or an errno value: EINVAL for other flags, ENOMEM without addresses, EPERM where the signals cannot be had.
 */
int k42mcx_page_guards(__UINT32_TYPE__ one_in, __UINT32_TYPE__ flags);

/* ---- Allocations that fail on purpose ---- */

/*
 * Which ones: those that any of the first group choose, of those that the second group leaves. Patterns may match anywhere
 * in a frame's symbol line, "module(function+0xoffset) [0xaddress]", of the innermost 16, or in the name of the file that
 * a wrapper was given; "*" stands for any text, "^" and "$" at the ends for the ends of the line. They have up to 255
 * bytes and are copied.
 */
typedef struct {
    __UINT64_TYPE__ nth;    /* the one that has this number, from 1; 0 for none */
    __UINT32_TYPE__ one_in; /* one in so many, at random; 0 for none */
    __UINT32_TYPE__ seed;   /* of that choice: the same numbers fail with the same seed */
    size_t above;           /* those of more bytes than that; 0 for none */
    const char *at;         /* those with a frame that matches; null for none */

    const char *only;   /* none but those with a frame that matches; null for all */
    const char *except; /* none of those with a frame that matches; null for all */
} k42mcx_failures;

/*
 * From now on these allocations of the wrappers fail as they do when memory runs out: null with ENOMEM, ENOMEM of
 * k42MC_posix_memalign, std::bad_alloc of new. While the checker is on, the report sink has the number and the trace of
 * each, and an NA line. What the dynamic loader asks for, and memory for an exception that is thrown, does not fail and has
 * no number.
 *   which  Null for none from now on. Numbers begin anew with each call. Call it while no other thread does.
 * Returns 0, or ENAMETOOLONG for a pattern that is too long; then none fail.
 */
int k42mcx_fail(const k42mcx_failures *which);

/* How many have failed on purpose, since the process began. */
size_t k42mcx_failed(void);

/* ---- What shows the use of memory at the wrong time ---- */

/*
 * Keeps released blocks from their allocator, up to so many bytes in all, guards and the quarantine's own memory
 * counted. They go in the order of their release, roughly: each thread gathers its own in between. Until then, another
 * release of a block is a DF, however much was allocated meanwhile, and its user bytes are filled with 0xfb. What
 * was written there shows when the block goes, at exit, and when this function makes it go: the process stops, as at a
 * release that finds a defect, with a line "k42mc detected WF: alloc(STD) usrPtr(0x...) usrSize(100) access(0x...+8)
 * trace buffer: ..." on standard output, which has the trace of the allocation, and the traces of both allocation
 * and release on standard error. k42mcx_verify lists such blocks, "file:line:WF:type:0xADDRESS:size" by the site of their
 * release, counts them, and stops nothing.
 *
 * Reallocations move, so that the old address is a released block's, but for changes of less than an eighth of a block
 * beyond 4096 bytes. Of blocks beyond 32 KiB, only the first and the last 4 KiB are filled, up to the page's border, and
 * the pages between go back to the system. Blocks that take more than an eighth of `bytes`, and those of the memory
 * manager, which other processes share, are released at once; pages of a block's own wait by themselves. When an
 * allocation fails, all that is kept is released, and it is tried again. The quarantine stays as it is while the checker is
 * switched on or off. A forked child goes on with its own copy.
 *   bytes  0 releases all and ends it; else 65536 at least.
 * Returns 0 or EINVAL. What another thread is releasing at the moment of a call with 0 may be kept until the next one. Takes
 * a lock of its own, which releases take for a moment now and then; memory is mapped for lists of the blocks. The library
 * stays loaded from then on.
 */
int k42mcx_quarantine(size_t bytes);

/*
 * Fills new blocks, but those of calloc and its like, and what a reallocation adds, with a byte, so that code that uses
 * memory which was never written to does the same wrong thing each time.
 *   byte  0 to 255; -1 ends it.
 * Returns 0 or EINVAL. Takes no lock.
 */
int k42mcx_fill(int byte);

/* ---- Descriptors ---- */

struct _IO_FILE;    /* FILE */
struct __dirstream; /* DIR */
struct FDEvent;     /* of fdcheck.h */

/*
 * FDAddEvent under the checker's lock, for reads and writes that several threads report.
 * Returns what FDAddEvent does; 1 after FDDeinit.
 */
int k42mcx_fd_event(const char *name, int descriptor, unsigned type);

/*
 * Writes the histories of all descriptors as JSON, one object per line: whether the system has the
 * descriptor open, what has been counted, and the events, oldest first. The checker's lock is released
 * before anything is written.
 *   fd  Open for writing; stays open.
 * Returns 0, or -1 with errno: EBADF, ENOMEM, or what write sets.
 */
int k42mcx_fd_report_json(int fd);

/*
 * Copies the newest open in the history of a descriptor, without its link.
 * Returns 1; 0 where none is known. Takes the checker's lock.
 */
int k42mcx_fd_opener(int descriptor, struct FDEvent *event);

/*
 * What redirect_fd.h puts around calls of libc. They take the checker's lock, keep errno and return what
 * they were given, so that they fit around a call: fd = k42mcx_fd_opened(__func__, open(path, flags)).
 * An open, read or write that failed is not an event. Between two opens or closes, only the last read
 * and the last write are kept. If a descriptor is closed that the checker takes for closed while the
 * system has it open, code that reports nothing has opened it: an open by "(not routed)" is recorded
 * first. What a child of vfork does with its descriptors is not recorded as its parent's.
 */
int k42mcx_fd_opened(const char *name, int descriptor);
int k42mcx_fd_opened_pair(const char *name, const int *descriptors, int result);
int k42mcx_fd_closing(const char *name, int descriptor);
__PTRDIFF_TYPE__ k42mcx_fd_used(const char *name, int descriptor, unsigned type,
                                __PTRDIFF_TYPE__ result);

/* The same for streams and directories, which the checker remembers with their descriptors. */
struct _IO_FILE *k42mcx_fd_opened_stream(const char *name, struct _IO_FILE *stream);
struct _IO_FILE *k42mcx_fd_closing_stream(const char *name, struct _IO_FILE *stream);
struct __dirstream *k42mcx_fd_opened_directory(const char *name, struct __dirstream *directory);

/*
 * Record that a stream or directory is closed, and close it with fclose, pclose or closedir. A second
 * close is recorded as one of its descriptor and never reaches libc, which would stop the process or
 * worse: the result is -1 with errno EBADF.
 */
int k42mcx_fd_fclose(const char *name, struct _IO_FILE *stream);
int k42mcx_fd_pclose(const char *name, struct _IO_FILE *stream);
int k42mcx_fd_closedir(const char *name, struct __dirstream *directory);

/* ---- libc's functions that hand out memory, over guarded blocks (redirect.h routes calls here) ----
 *
 * Each is libc's function of that name, with the caller's file and line in front and a block of the
 * standard family as its result: release it with k42MC_free or a routed free. Return values, errno and
 * what is read and written are as libc has them. The names with "plain" are for references that carry
 * no site: addresses, tables, calls in parentheses. Their blocks have the file "(indirect call)" and
 * line 0.
 */

/* As k42MC_realloc, but allocates when ptr is null and size is 0, as libc's does. */
void *k42mcx_realloc(const char *file, int line, void *ptr, size_t size)
    K42MC_SIZE_IS(4) K42MC_MUST_CHECK;

/* Resizes to nmemb * size bytes. Null with errno ENOMEM, and ptr untouched, if the product overflows. */
void *k42mcx_reallocarray(const char *file, int line, void *ptr, size_t nmemb, size_t size)
    K42MC_SIZE_IS_PRODUCT(4, 5) K42MC_MUST_CHECK;

/*
 * Allocates size bytes at a multiple of alignment. Returns the block, or null with errno set: EINVAL if
 * the alignment is not a power of two or is above K42MC_ALIGN_MAX. One below the size of a pointer
 * counts as that size.
 */
void *k42mcx_aligned_alloc(const char *file, int line, size_t alignment, size_t size)
    K42MC_RELEASED_BY(k42MC_free, 3) K42MC_SIZE_IS(4);

/* As k42mcx_aligned_alloc, but the alignment is rounded up to a power of two. */
void *k42mcx_memalign(const char *file, int line, size_t alignment, size_t size)
    K42MC_RELEASED_BY(k42MC_free, 3) K42MC_SIZE_IS(4);

char *k42mcx_strdup(const char *file, int line, const char *s) K42MC_RELEASED_BY(k42MC_free, 3);
char *k42mcx_strndup(const char *file, int line, const char *s, size_t most)
    K42MC_RELEASED_BY(k42MC_free, 3);
wchar_t *k42mcx_wcsdup(const char *file, int line, const wchar_t *s) K42MC_RELEASED_BY(k42MC_free, 3);

/* The block is exactly as long as the text and its NUL. On failure they return -1, and *text is null. */
int k42mcx_asprintf(const char *file, int line, char **text, const char *format, ...) K42MC_PRINTF(4, 5);
int k42mcx_vasprintf(const char *file, int line, char **text, const char *format,
                     __builtin_va_list arguments) K42MC_PRINTF(4, 0);

/* A line buffer that is passed in must be a block of the standard family. */
__PTRDIFF_TYPE__ k42mcx_getline(const char *file, int line, char **buffer, size_t *capacity,
                                struct _IO_FILE *stream);
__PTRDIFF_TYPE__ k42mcx_getdelim(const char *file, int line, char **buffer, size_t *capacity,
                                 int delimiter, struct _IO_FILE *stream);

/*
 * The stream is unbuffered: *text and *size are up to date after each write and seek, not only after
 * fflush and fclose. *size is the position, or the length if the position is beyond it; the text is
 * followed by a NUL. Once the stream is closed, the block is exactly as long as the text and its NUL.
 */
struct _IO_FILE *k42mcx_open_memstream(const char *file, int line, char **text, size_t *size);

/* Return a block only when the buffer is null; otherwise they are libc's functions and nothing else. */
char *k42mcx_realpath(const char *file, int line, const char *path, char *resolved);
char *k42mcx_getcwd(const char *file, int line, char *buffer, size_t size);

/* Returns the size asked for if ptr is a guarded block, 0 for null, else what libc's function does. */
size_t k42mcx_malloc_usable_size(void *ptr);

/* Passes ptr to libc's free: for memory that is not a guarded block, as unrouted libraries return it. */
void k42mcx_raw_free(void *ptr);

void *k42mcx_plain_malloc(size_t size);
void *k42mcx_plain_calloc(size_t nmemb, size_t size);
void *k42mcx_plain_realloc(void *ptr, size_t size);
void *k42mcx_plain_reallocarray(void *ptr, size_t nmemb, size_t size);
int k42mcx_plain_posix_memalign(void **memptr, size_t alignment, size_t size);
void *k42mcx_plain_aligned_alloc(size_t alignment, size_t size);
void *k42mcx_plain_memalign(size_t alignment, size_t size);
void *k42mcx_plain_valloc(size_t size);
void k42mcx_plain_free(void *ptr);
void k42mcx_plain_cfree(void *ptr);
char *k42mcx_plain_strdup(const char *s);
char *k42mcx_plain_strndup(const char *s, size_t most);
wchar_t *k42mcx_plain_wcsdup(const wchar_t *s);
int k42mcx_plain_asprintf(char **text, const char *format, ...) K42MC_PRINTF(2, 3);
int k42mcx_plain_vasprintf(char **text, const char *format, __builtin_va_list arguments)
    K42MC_PRINTF(2, 0);
__PTRDIFF_TYPE__ k42mcx_plain_getline(char **buffer, size_t *capacity, struct _IO_FILE *stream);
__PTRDIFF_TYPE__ k42mcx_plain_getdelim(char **buffer, size_t *capacity, int delimiter,
                                       struct _IO_FILE *stream);
struct _IO_FILE *k42mcx_plain_open_memstream(char **text, size_t *size);
char *k42mcx_plain_realpath(const char *path, char *resolved);
char *k42mcx_plain_getcwd(char *buffer, size_t size);

K42MC_END_DECLS

#endif
