// What this process leaves in the folder for reports: "<program>.<pid>.txt" and ".json".
#pragma once

#include <stdint.h>
#include <stdio.h>

// The folder that the environment names, if any.
bool has_output_folder();

// Returns a descriptor, or -1.
int open_output(const char *extension, int flags);

// A stream over the text file, on a descriptor away from the low numbers, which programs expect to be
// free. Null when there is none.
FILE *open_text_output();

// One more report as lines of JSON.
void write_json(uint32_t limit);

// Notes down what stops the process, as one more line of JSON.
void note_defects();

// A number in the environment.
long number_in(const char *variable, long otherwise);
