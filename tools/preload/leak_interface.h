// What a program that is prepared for the compilers' leak checker says of itself; see leak_interface.cpp.
#pragma once

struct ProgramsWishes {
    const char *suppressions; // lines "leak:PATTERN", or null
    bool no_search;
};

ProgramsWishes ask_program();
