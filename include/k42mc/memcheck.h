/*
 * The memory checker: switched on, it records every live block of the wrappers with its file, line,
 * size, type and stack trace, and reports, cycle by cycle, the blocks that keep surviving.
 *
 * Glossary
 *   type    The allocator that a block came from: an index into gAllocatorType.
 *   site    The file and line of an allocation.
 *   sink    Where reports go: standard error or a report file, as MCInit chose.
 *   cycle   One MCReport. A record's cycles are the reports that have seen it.
 *   trace   The stack trace of an allocation: return addresses, innermost first.
 *   filter  One site and size: file, line, type and size.
 *
 * Control functions report problems on standard error and return; none of them stops the process. They
 * may be called from any thread and take gMCLock; none of them is async-signal-safe, and none may be
 * called by a thread that holds gMCLock.
 */
#ifndef K42MC_MEMCHECK_H
#define K42MC_MEMCHECK_H

#include <k42mc/base.h>
#include <pthread.h>
#include <stdint.h>

K42MC_BEGIN_DECLS

/* ---- Types ---- */

enum { MC_STD, MC_SYS, MC_FIX, MC_VAR, MC_SHM, MC_ALLOCATOR_TYPES };

/* "STD", "SYS", "FIX", "VAR", "SHM". */
K42MC_DATA const char *const gAllocatorType[MC_ALLOCATOR_TYPES];

/* ---- The checker's flag and lock ---- */

/* 1 while the checker records. Read it freely; MCInit, MCDeinit and the exit report write it. */
K42MC_DATA uint8_t gK42MCOn;

/*
 * Guards all state of the memory checker, the registry against the threads that record among it. Not
 * recursive. Taken after gFDLock. Take it by MCLock: pthread_mutex_lock keeps others from recording, too,
 * but does not wait for those that are about to.
 */
K42MC_DATA pthread_mutex_t gMCLock;

/*
 * Takes gMCLock if the checker is on. No thread records until it is released: those that are about to
 * have ended when this returns, others wait.
 * Returns 1 with the lock held; 0 without it, when the checker is off or the lock cannot be taken.
 */
uint8_t MCLock(void);

/* Releases gMCLock. Returns the status of pthread_mutex_unlock: 0 on success. */
int MCUnlock(void);

/* ---- Switching it on and off ---- */

/* Bits of the type bitmap. */
#define MC_TYPE_LKBF     0x01u /* leaks and bad frees; always on while the checker is */
#define MC_TYPE_SHM      0x10u /* announces shared memory, which is monitored in any case */
#define MC_TYPE_BT_OFF   0x20u /* traces only for sites given to MCBTFilterIn */
#define MC_TYPE_LK_RESET 0x80u /* when already on: forget the blocks and the counters so far */

/* Values of file_type. */
#define MC_TO_STDERR 0u
#define MC_TO_FILE   1u

/*
 * Switches the checker on; when it is on already, changes the bitmap and, with MC_TYPE_LK_RESET, starts
 * leak detection anew. The first call in a process also arranges for a final report at exit.
 *   file_type  MC_TO_STDERR or MC_TO_FILE, bytes reversed (K42MC_BE32). Ignored when already on.
 *   bitmap     MC_TYPE_ bits, bytes reversed. 0 stands for MC_TYPE_LKBF, or for no change when on.
 * Errors go to standard error: a bad argument, a report file that cannot be opened, too little memory.
 * The checker then stays as it was.
 */
void MCInit(uint32_t file_type, uint32_t bitmap);

/* Switches the checker off, forgets all records and filters and closes a report file. */
void MCDeinit(void);

/*
 * Prints one report on the sink: the blocks that have survived limit reports, this one included, oldest
 * first, and the counters since the last report and since the last reset.
 *   limit  Bytes reversed (K42MC_BE32). 0 and 1 list every live block, 2 those that the previous report
 *          saw too, and so on.
 * If blocks may be listed and, since the last reset, over 199 more were recorded than released, the
 * report goes to a report file instead of standard error. Allocations and releases of other threads wait
 * until it is written. Time: linear in the live blocks; allocates nothing.
 */
void MCReport(uint32_t limit);

/*
 * Prints on standard error what is known of one block: a record line and the trace of its allocation.
 *   address  The block's user pointer, bytes reversed (K42MC_BE_ADDR).
 * Returns 0 when the block is known or the address is 0; else 1.
 */
uint32_t MCCheck(uintptr_t address);

/*
 * Writes a message to the process's debug file, "/k42/<program>.<time>.debug.txt" unless the library was
 * built with another folder, or to standard error if that cannot be opened. Works whether or not the
 * checker is on.
 *   with_backtrace  Nonzero to add the caller's stack trace.
 *   format          As for printf, at most 255 characters once formatted; null for "No message.".
 * Takes a lock of its own, never gMCLock.
 */
void MCDebugMsg(int with_backtrace, const char *format, ...) K42MC_PRINTF(2, 3);

/* ---- Which blocks get a trace ----
 *
 * By default every block does, unless an out-filter names its site; with MC_TYPE_BT_OFF none does,
 * unless an in-filter names it. A filter has the layout of a report's LK line, so a line can be copied:
 * "net.c:42:LK:STD:0x80A1040:100:2". Its file, line, type and size count. A file name that contains a
 * colon cannot be given.
 */

/*
 * Asks for traces of a site: adds an in-filter while traces are off by default, else cancels the
 * out-filter of that site.
 *   text     The filter; it is taken apart in place. Not kept.
 * Returns 0, also when there was nothing to do; -1 with a message on standard error if the text is not a
 * filter, memory ran out, or the checker is off.
 */
int MCBTFilterIn(char *text);

/* Asks for no traces of a site; otherwise the mirror image of MCBTFilterIn. */
int MCBTFilterOut(char *text);

/* MCBTFilterIn when in is nonzero, else MCBTFilterOut. */
int MCBTFilterSet(char *text, int in);

/* Forgets all filters. Refused with a message while the checker is off. */
void MCBTFilterReset(void);

/* ---- The registry, for allocators of your own ----
 *
 * Both are called with gMCLock held (MCLock returned 1), and must not be called otherwise.
 */

/*
 * Records a block.
 *   file, line  Its site; file is kept by pointer and has to outlive the block.
 *   type        An allocator type; others are ignored.
 *   address     The block; 0 reports a failed allocation (an NA line).
 *   size        In bytes.
 */
void MCAlloc(const char *file, int line, uint16_t type, uintptr_t address, size_t size);

/*
 * Forgets a block; one that is not recorded is ignored.
 *   type     The releasing allocator's type. If the block has another, a BF line says so.
 *   address  The block; 0 reports a null release (an NF line) unless type is MC_STD.
 */
void MCFree(const char *file, int line, uint16_t type, uintptr_t address);

K42MC_END_DECLS

#endif
