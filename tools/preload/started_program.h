// A program that a process is about to start. Nothing here allocates: it may be called in a child that has its parent's
// memory.
#pragma once

#include <stddef.h>

enum class Search { none, path };

// Why nobody will look after it; null for nothing that can be told.
const char *reason_against_program(const char *name, Search search);

// Whether the variables have the shim put into it.
bool bring_shim(char *const *variables);

// Variables without the shim in LD_PRELOAD, where the command has put it ahead of what else was there.
class WithoutShim {
public:
    explicit WithoutShim(char *const *variables);

    size_t bytes() const { return (count_ + 1) * sizeof(char *) + line_bytes_; }
    char *const *make(void *place) const; // of so many bytes

private:
    char *const *variables_;
    size_t count_ = 0;
    size_t line_bytes_ = 0; // of the new LD_PRELOAD
};
