// Text in JSON, written to a descriptor in pieces.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace k42mc {

class JsonWriter {
public:
    explicit JsonWriter(int descriptor) : descriptor_(descriptor) {}

    // As it stands.
    void put(const char *text);
    void put(uint64_t number);

    // In quotes, with escapes. What is not valid UTF-8 becomes U+FFFD, byte by byte.
    void put_string(const char *text);

    // Members, each with a comma in front but for the first behind a brace.
    void member(const char *name, uint64_t value);
    void member(const char *name, const char *value);
    void open_member(const char *name);

    // Writes what is left. Returns 0, or the errno value of the first write that failed.
    int finish();

private:
    void put_byte(char byte);
    void flush();

    const int descriptor_;
    int error_ = 0;
    size_t used_ = 0;
    char last_ = 0;
    char buffer_[4096];
};

} // namespace k42mc
