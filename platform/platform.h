// What the library needs from the system it runs on, each primitive declared once. What differs by
// processor or system sits behind this header, in a file of its own.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/single_threaded.h>
#include <time.h>

#include <span>

namespace k42mc::internal::platform {

// ---- Traces ----

// Captures the stack trace of the calling thread: return addresses, innermost first, beginning with the
// one in the code that called into the library. The leading run of the library's own frames is skipped,
// however the compiler inlined them; library frames below a callback of the user stay.
// Returns the number stored, at most `most`. Allocates nothing, keeps errno.
int backtrace_skip(void **frames, int most);

// By what a trace is known again: traces with the same mark are the same, in whatever threads.
struct TraceMark {
    static constexpr int most_parts = 3;

    uint64_t parts[most_parts]; // all 0 for a trace that is new, or has none
    bool is_known() const { return parts[0] != 0; }
    bool operator==(const TraceMark &) const = default;
};
int backtrace_skip(void **frames, int most, TraceMark &mark);

// That of the thread that a signal handler has interrupted, by the handler's third argument. Readers look for the call
// ahead of an address: so the first is the one behind the place.
int backtrace_of_interrupted(const void *context, void **frames, int most);

// Writes one line a frame to a descriptor: "module(function+0xoffset) [0xaddress]", static functions
// included; without the function where no symbol covers the address, without the module where none is
// loaded there. Allocates nothing and never waits for the loader's lock; keeps errno.
void backtrace_symbols_fd(void *const *frames, int count, int descriptor);

// Puts the line of one frame. Returns its length, 0 for one that is longer than there is room.
size_t symbol_line(const void *frame, std::span<char> text);

// Puts where an address lies: the path of its module, cut to the room there is and without a terminator,
// and the address that the module's file has for it. Returns the length of the path, 0 where
// no module is. As free of locks and allocations; keeps errno.
size_t module_place(const void *address, std::span<char> path, uintptr_t &offset);

// The same for many places, of which most are in the same few modules: it asks the system for each one's path once.
class ModulePaths {
public:
    size_t place(const void *address, std::span<char> path, uintptr_t &offset);

private:
    struct Known {
        uintptr_t begin, end, record; // of the loaded module
        uintptr_t base;
        size_t length; // 0 for none
        char path[104];
    };
    Known known_[3] = {};
    size_t next_ = 0;
};

// Puts the name of the function at a return address, cut to the room there is and without a terminator. Returns its
// length, 0 where none is known. As free of locks and allocations; keeps errno.
size_t function_name(const void *address, std::span<char> name);

// The same for the variable that lies at an address, and where it lies.
struct Variable {
    size_t name_length;
    uintptr_t begin, end;
};
Variable variable_at(uintptr_t address, std::span<char> name);

// The same in the thread-local memory of the thread with that control block, which stands still or is the calling one: of
// modules that were loaded with the program.
Variable thread_local_variable_at(uintptr_t address, uintptr_t control_block, std::span<char> name);

// Keeps the library loaded for good. May wait for the loader's lock.
void stay_loaded();

// ---- Time ----

struct LocalTime {
    int year;       // all digits
    int month, day; // from 1
    int hour, minute, second;
};

// Takes note of the offset from UTC that is in force now. Waits for the C library's lock, so nobody who
// holds a lock of ours may call it. May change errno.
void note_utc_offset();

// Converts by the offset noted last. Takes no lock; keeps errno.
LocalTime local_time(time_t moment);

// Notes no more: for a child process without the threads of its parent, one of which may have held that
// lock.
void freeze_utc_offset();

// ---- Memory ----

// Whether size bytes can be read without a fault at this moment. A system call for each page touched.
// Keeps errno.
bool readable(const void *address, size_t size);

// Memory of zeros that nothing else lies beside, in whole pages; null when there is none. Keeps errno.
void *map_memory(size_t size);
void unmap_memory(void *memory, size_t size);

// Gives whole pages back to the system; they read as zeros then. False where they do not, with what is in them changed
// or not. Keeps errno.
bool discard(void *memory, size_t size);

// The same as map_memory, which a copy of the process shares.
void *map_shared_memory(size_t size);

// What an address belongs to, as far as the system and the loader know: nothing is mapped there; the stack of
// the calling thread, or of the first one; a segment of a module, or of one that may have an allocator of its
// own over its data. Unknown is all other memory, and what nobody says anything about.
enum class Place { unknown, nothing, this_stack, first_stack, module, allocators_module };

// Allocates nothing, waits for nobody, keeps errno.
Place place_of(const void *address);

// ---- Threads ----

// Whether the calling thread's stack has room for so many bytes more; true where that is not known. Keeps
// errno.
bool has_stack_room(size_t bytes);

// Zeros the nearest of the calling thread's stack that is not in use, as far as there is room. Keeps errno.
void clear_unused_stack();

// Whether an address lies in the memory that a thread other than the first was given for its stack, by what the
// C library calls the thread and by its number. False once it has ended. May change errno.
bool is_on_stack_of(pthread_t thread, uint32_t number, uintptr_t address);

// Whether any thread holds a mutex, at this moment.
inline bool is_held(const pthread_mutex_t &mutex) {
    return __atomic_load_n(&mutex.__data.__lock, __ATOMIC_RELAXED) != 0;
}

// To a processor that waits for another one.
inline void wait_a_moment() {
    __builtin_ia32_pause();
}

// Lets any other thread run, whatever its priority. Keeps errno.
void sleep_briefly();

// ---- Process ----

// The program's short name.
const char *progname();

// In bytes.
size_t page_size();

// Whether the process has had a second thread.
inline bool single_threaded() {
    return __libc_single_threaded;
}

// Whether this is a child of vfork, which runs on its parent's memory until it execs.
bool borrows_memory();

// How many descriptors the process may have open: the soft limit at this moment, or the largest number
// there is where it has none.
uint64_t descriptor_limit();

// Whether memory that held a stream or a directory once holds one that is open. They look before they
// read. May change errno.
bool is_open_stream(const FILE *stream);
bool is_open_directory(const DIR *directory);

// Holds a stream that no thread is using, this one neither: for funlockfile to let go. Waits for nobody.
bool hold_if_idle(FILE *stream);

// Holds libc's list of streams, which fork takes after its handlers have run and fflush(NULL) keeps
// while it waits for each stream. To be taken ahead of locks that are held across a fork; let go by
// parent and child each in its way.
void hold_stream_list();
void release_stream_list();
void renew_stream_list();

// ---- Writing ----

// While this lives, its thread gets none of the signals that a write can raise: for a file that would
// pass the process's limit, a pipe that nobody reads, a terminal that belongs to other processes.
class WriteSignalsHeld {
public:
    WriteSignalsHeld();
    ~WriteSignalsHeld();
    WriteSignalsHeld(const WriteSignalsHeld &) = delete;
    WriteSignalsHeld &operator=(const WriteSignalsHeld &) = delete;

    // To be told what a write failed with, so that the signal that came with it is taken away.
    void take_signal_of(int failure);

private:
    sigset_t former_;
    bool held_; // not where a sandbox denies it
    bool others_pending_ = false;
};

// Waits until a descriptor takes bytes, for five seconds at most; where that was in vain, not again
// until bytes have been taken. Returns whether it does.
bool wait_for_room(int descriptor);

// Writes past all streams, raising no signal, and waiting for room where the descriptor does not block.
// Stops at the first failure: returns 0 or what it was. May change errno.
int write_all(int descriptor, const char *bytes, size_t size);

// Says on descriptor 2 that an assertion failed, and aborts. Allocates nothing.
[[noreturn]] void assertion_failed(const char *expression, const char *file, int line,
                                   const char *function);

} // namespace k42mc::internal::platform
