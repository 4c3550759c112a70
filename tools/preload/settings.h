// What the environment asks of the shim; session.cpp lists the variables.
#pragma once

#include <stdlib.h>

inline long number_in(const char *variable, long otherwise) {
    const char *value = getenv(variable);
    return value != nullptr ? strtol(value, nullptr, 10) : otherwise;
}
