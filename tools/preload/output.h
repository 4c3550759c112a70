// What this process leaves in the folder for reports: "<program>.<pid>.txt" and ".json".
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

// Takes note of the folder that the environment names and of the program's name: a server overwrites
// both with what it wants to be called. False without a folder.
bool find_output_folder();

const char *program_name();

// One of the two files, held open. Programs close descriptors that they do not know, and use the numbers
// for something of their own: the file is then opened again.
class ReportFile {
public:
    constexpr ReportFile(const char *extension, int flags) : extension_(extension), flags_(flags) {}

    // For a new process; false when the file cannot be opened.
    bool open_anew();

    // Returns -1 when the file cannot be opened again.
    int descriptor();

private:
    bool open_with(int flags);
    bool is_open() const;

    const char *extension_;
    int flags_;
    int descriptor_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Opens both files. Returns a stream over the text, null when there is none.
FILE *open_outputs();

// In a child of fork: opens files of its own.
void reopen_outputs(FILE *stream);

// Ahead of a report: puts the stream back on its file.
void check_output(FILE *stream);

// One more report as lines of JSON.
void write_json(uint32_t limit);

// Notes down what stops the process, as one more line of JSON.
void note_defects();

// A number in the environment.
long number_in(const char *variable, long otherwise);
