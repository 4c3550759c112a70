// What this process has to say, and the defect that stops it.
#pragma once

#include <stdint.h>
#include <stdio.h>

// Opens the files and lends the checker a stream over the text as its sink. False when there is no folder, or
// the files cannot be made there.
bool open_outputs();

// In a child of fork: files of its own, below the same stream.
void renew_outputs();

// One more report as lines of JSON.
void write_json(uint32_t limit);
