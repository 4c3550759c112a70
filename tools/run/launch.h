// Starting a program with the shim in front of its allocator.
#pragma once

#include <string>
#include <vector>

struct Setting {
    std::string variable, value;
};

// Lays out folder/<the loader's $LIB for a width>/ so that one LD_PRELOAD serves programs of both
// widths, and returns its value. Throws std::runtime_error when there is no shim for the program's
// width, or the loader could not read the folder's name.
std::string lay_out_preload(const std::string &folder, const std::string &program);

// Runs the program and waits for it. Returns what wait says.
int launch(const std::vector<std::string> &command, const std::vector<Setting> &environment);
