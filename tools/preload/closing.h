// Servers close every descriptor that they do not know, and give up the right to open the files for reports again. So
// these stay open: to the program, nothing is open there.
#pragma once

// Whether a file for reports is open there.
bool is_kept_open(int descriptor);

// Ahead of something else of the program's being opened just there: a file for reports goes on under another number.
void make_way(int descriptor);
