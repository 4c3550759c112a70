/*
 * The descriptor checker: who opened, closed, read and wrote each descriptor, as far as the process
 * reports it. It raises an alarm when a descriptor is closed twice in a row, and when descriptor 0, 1 or
 * 2 is opened or closed more than three times in all. An alarm freezes the descriptor's history, so that
 * the events that led to it stay.
 *
 * It needs no start call. It prints on standard error and never stops the process.
 *
 * Glossary
 *   event     One operation on a descriptor: its operator, time and stack trace.
 *   operator  The code that did it, under a name of the caller's choice: copied, cut to 15 characters.
 *   history   A descriptor's events, oldest first. It grows until 10 opens and closes have been counted;
 *             from then on each event replaces the oldest.
 *
 * FDOpen, FDClose, FDCheck, FDReport and k42mcx_fd_event (extra.h) may be called from any thread and
 * take the checker's lock, which comes before gMCLock. None is async-signal-safe. The functions that
 * record keep errno.
 */
#ifndef K42MC_FDCHECK_H
#define K42MC_FDCHECK_H

#include <k42mc/sl.h>

K42MC_BEGIN_DECLS

/* ---- Events ---- */

enum { FD_EV_OPEN, FD_EV_CLOSE, FD_EV_READ, FD_EV_WRITE, FD_EVENT_TYPES };

/* "OPEN", "CLOSE", "READ", "WRITE". */
K42MC_DATA const char *const gFDEventType[FD_EVENT_TYPES];

#define FD_MOST_FRAMES 16

typedef struct FDEvent {
    char name[16];                /* of the operator, "UNKNOWN" for null */
    char time[16];                /* "month/day hour:minute:second", local time without leading zeros */
    uint32_t type;                /* an index into gFDEventType */
    SLLink link;                  /* of the descriptor's history */
    void *frames[FD_MOST_FRAMES]; /* return addresses, innermost first */
    uint32_t frameCount;
} FDEvent;

/* ---- The table ---- */

typedef struct FDInfo {
    uint32_t opens; /* these two go on counting after an alarm */
    uint32_t closes;
    uint32_t alarms; /* 0, or 1 from the first alarm on */
    SLList *events;  /* of FDEvent; null until the first one */
} FDInfo;

/*
 * One record per descriptor; null until the first event. There are as many as the process may have
 * descriptors open at that moment, at most 2^20; later changes of that limit have no effect.
 */
K42MC_DATA FDInfo *gFDITable;

/* Set it to nonzero for events without a stack trace, which is what costs most. */
K42MC_DATA int gFDNoBacktrace;

/* The text of the checker's last error message. */
K42MC_DATA char gFDDebugStr[1024];

/* ---- Recording ---- */

/*
 * Record that a descriptor was opened, that it is about to be closed. Call FDClose before close(): after
 * it, another thread may already have the number.
 *   name        The operator, or null. Copied.
 *   descriptor  Ignored when negative or beyond the table.
 */
void FDOpen(const char *name, int32_t descriptor);
void FDClose(const char *name, int32_t descriptor);

/*
 * Records one event of the given type, FD_EV_OPEN to FD_EV_WRITE. It takes no lock: no other call of the
 * descriptor checker may run at the same time. k42mcx_fd_event is the same with the lock.
 * Returns 0 when the event was recorded, or dropped because an alarm has frozen the history; 1, with a
 * message on standard error, when the descriptor or the type is out of range or memory ran out.
 */
int32_t FDAddEvent(const char *name, int32_t descriptor, uint32_t type);

/*
 * Shuts the checker down for good: histories are dropped, without being freed, and FDOpen and FDClose do
 * nothing from then on. It takes no lock: no other call of the descriptor checker may be running.
 */
void FDDeinit(void);

/* ---- Reports. The arguments have their bytes reversed: FDCheck(K42MC_BE32(3)). ---- */

/* Prints the history of a descriptor with the stack trace of each event, and what has been counted. */
void FDCheck(int32_t descriptor);

enum {
    FD_REPORT_ALL_USED,   /* every descriptor with a history */
    FD_REPORT_MULTIPLE,   /* those with at least two opens and closes */
    FD_REPORT_ALARMING,   /* those with an alarm */
    FD_REPORT_ALL_OPEN,   /* those whose newest event is an open, without alarm */
    FD_REPORT_ALL_CLOSED, /* those whose newest event is a close, without alarm */
    FD_REPORT_SCHEMES
};

/* What the report calls them: "all used fds", ... */
K42MC_DATA const char *const gFDReportScheme[FD_REPORT_SCHEMES];

/*
 * Prints the descriptors that a scheme selects, eight on a line, each with the operator of its newest
 * event: "4(worker)". The first two schemes mark those with an alarm by "*" and closed ones by "-".
 */
void FDReport(uint32_t scheme);

K42MC_END_DECLS

#endif
