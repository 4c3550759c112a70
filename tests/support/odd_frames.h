// Functions that call what they are given, from frames that the unwind tables describe as no compiler
// does.
#pragma once

struct OddFrame {
    const char *name;
    void (*call)(void (*called)());
};

// Which every unwinder follows.
extern const OddFrame known_frames[];
extern const int known_frame_count;

// Of which nothing can be said: the trace ends with them.
extern const OddFrame unknown_frames[];
extern const int unknown_frame_count;
