// What this process leaves in the folder for reports: "<program>.<pid>.txt" and ".json".
#pragma once

#include <stdint.h>
#include <stdio.h>

// Takes note of the folder that the environment names and of the program's name: a server overwrites both
// with what it wants to be called. False without a folder.
bool find_output_folder();

const char *program_name();

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
