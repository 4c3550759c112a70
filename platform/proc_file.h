// What the system says of the process in files below /proc. No buffer from the allocator, and no function of
// libc's that waits for a lock or can be cancelled.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal::platform {

class ProcFile {
public:
    explicit ProcFile(const char *path);
    ~ProcFile();
    ProcFile(const ProcFile &) = delete;
    ProcFile &operator=(const ProcFile &) = delete;

    bool is_open() const { return file_ >= 0; }

    // Whether the end is where the bytes end, and not where the system refused more.
    bool is_whole() const { return is_open() && is_whole_; }

    // The next byte, or -1 at the end.
    int get();

    // A number and the one byte behind it, which is put into `end`.
    uint64_t hexadecimal(int &end) { return number(16, end); }
    uint64_t decimal(int &end) { return number(10, end); }

    // Up to the next line. `last` is the byte read last.
    void skip_line(int last);

    // Whether the next bytes are just these. Reads on to the first that is not.
    bool has(const char *text, int &last);

private:
    uint64_t number(unsigned base, int &end);
    bool fill();

    const int file_;
    size_t next_ = 0, filled_ = 0;
    bool is_whole_ = true;
    char buffer_[1024];
};

} // namespace k42mc::internal::platform
