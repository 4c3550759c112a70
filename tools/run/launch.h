// Starting a program with the shim in front of its allocator.
#pragma once

#include <string>
#include <vector>

struct Setting {
    std::string variable, value;
};

// The value of LD_PRELOAD for programs of both widths: the shims beside this command, where they were
// installed, below the loader's $LIB for a width. Throws std::runtime_error when there is none for the
// program's width, or the loader could not read the path.
std::string preload_path(const std::string &program);

// Runs the program and waits for it. Returns what wait says.
int launch(const std::vector<std::string> &command, const std::vector<Setting> &environment);
