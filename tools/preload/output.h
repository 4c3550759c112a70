// What this process has to say, and the defect that stops it.
#pragma once

#include <stdint.h>

// Opens the files and lends the checker the text as its sink. False when there is no folder, or
// the files cannot be made there.
bool open_outputs();

// In a child of fork: files of its own.
void renew_outputs();

// One more report as lines of JSON.
void write_json(uint32_t limit);
