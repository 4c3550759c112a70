// Starting a program with the shim in front of its allocator.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

constexpr int own_trouble = 125; // an exit status, as the shell has 126 and 127

struct Setting {
    std::string variable, value;
};

// The value of LD_PRELOAD for programs of both widths: the shims beside this command, where they were
// installed, below the loader's $LIB for a width. Throws std::runtime_error when there is none for the
// program's width, or the loader could not read the path.
std::string preload_path(const std::string &program);

// Why the loader finds no shim for a program of that width; empty where it does.
std::string missing_shim(const std::string &program);

// The file of a program, as the shell finds it.
std::string find_program(const std::string &name);

struct Ended {
    pid_t process;
    int status; // as wait has it
};

// The program in gdb, which stops it where an allocation fails on purpose.
std::vector<std::string> in_gdb(const std::vector<std::string> &command,
                                const std::vector<Setting> &environment);

// Runs the program and waits for it.
Ended launch(const std::vector<std::string> &command, const std::vector<Setting> &environment);
