// What the library needs from the system it runs on, each primitive declared once. What differs by
// processor or system sits behind this header, in a file of its own.
#pragma once

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

namespace k42mc::platform {

// ---- Traces ----

// Captures the call chain of the calling thread: return addresses, innermost first, beginning with the
// one in the code that called into the library. The leading run of the library's own frames is skipped,
// however the compiler inlined them; library frames below a callback of the user stay.
// Returns the number stored, at most `most`. Allocates nothing, keeps errno.
int backtrace_skip(void **frames, int most);

// Writes one line a frame to a descriptor: "module(function+0xoffset) [0xaddress]", static functions
// included; without the function where no symbol covers the address, without the module where none is
// loaded there. Allocates nothing and never waits for the loader's lock; keeps errno.
void backtrace_symbols_fd(void *const *frames, int count, int descriptor);

// Puts "path+0xoffset" for a return address, where the offset is that of the module's file as the loader
// counts it; "0xaddress" where no module is loaded. Cut to the room, which includes a terminator, and
// never waits for the loader's lock. Returns the length. May change errno.
size_t module_place(const void *return_address, char *text, size_t room);

// ---- Time ----

struct LocalTime {
    int year;       // all digits
    int month, day; // from 1
    int hour, minute, second;
};

// Converts as the C library does, and so may wait for its lock; after freeze_utc_offset by the offset
// from UTC that was in force at the last conversion. Keeps errno where that is frozen.
LocalTime local_time(time_t moment);

// For a child process without the threads of its parent, one of which may have held that lock.
void freeze_utc_offset();

// ---- Memory ----

// Whether size bytes can be read without a fault at this moment. A system call for each page touched.
// Keeps errno.
bool readable(const void *address, size_t size);

// ---- Process ----

// The program's short name.
const char *progname();

// In bytes.
size_t page_size();

// Whether the process has had a second thread.
bool single_threaded();

// Whether this is a child of vfork, which runs on its parent's memory until it execs.
bool borrows_memory();

// How many descriptors the process may have open: the soft limit at this moment, or the largest number
// there is where it has none.
uint64_t descriptor_limit();

// Whether memory that held a stream or a directory once holds one that is open. They look before they
// read. May change errno.
bool is_open_stream(const FILE *stream);
bool is_open_directory(const DIR *directory);

// Writes past all streams; stops at the first failure. May change errno.
void write_all(int descriptor, const char *bytes, size_t size);

// Says on descriptor 2 that an assertion failed, and aborts. Allocates nothing.
[[noreturn]] void assertion_failed(const char *expression, const char *file, int line,
                                   const char *function);

} // namespace k42mc::platform
