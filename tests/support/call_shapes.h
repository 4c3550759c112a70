// Ways for a function to call another. Each set holds them all, compiled with flags of its own.
#pragma once

#include <cstdint>

struct Path {
    uint32_t random;
    int depth; // calls still to go
    void (*end)();
    bool throws; // where it goes on from a destructor, on the way of an exception
};

// Follows the path through the set by calls at random, down to its end.
using CallShapes = void (*)(Path &path);

extern "C" {
void call_shapes_O0(Path &path);
void call_shapes_O1_frame_pointer(Path &path);
void call_shapes_O2_realigned(Path &path);
void call_shapes_O3(Path &path);
void call_shapes_Os(Path &path);
}
