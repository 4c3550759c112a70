// Files that others may have put there: whatever stands under a name, opening it does not wait.
#pragma once

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// A descriptor, closed at the end.
class File {
public:
    File() = default;
    explicit File(int descriptor) : descriptor_(descriptor) {}
    File(File &&other) noexcept : descriptor_(other.release()) {}
    File(const File &) = delete;
    File &operator=(File &&other) noexcept {
        close();
        descriptor_ = other.release();
        return *this;
    }
    ~File() { close(); }

    bool is_open() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    int release() { return std::exchange(descriptor_, -1); }
    void close() {
        if (is_open())
            ::close(release());
    }

private:
    int descriptor_ = -1;
};

// Opens a regular file of at most that many bytes. Else not open, with errno: EINVAL for what is no
// regular file, EFBIG.
File open_regular(const std::string &path, off_t most_bytes);

// Opens what can be read to an end: a regular file or a pipe. Else not open, with errno: EINVAL for
// anything else. A pipe has to be waited for.
File open_input(const std::string &path);
