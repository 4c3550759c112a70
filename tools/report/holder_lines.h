// What holds a site's blocks, a line each.
#pragma once

#include "tools/report/model.h"
#include "tools/report/names.h"

// What a process says of a root, with the names in it demangled: "variable `sessions` in server+0x40c0".
std::string readable_root(std::string_view root);

// "variable `sessions` in server+0x40c0: 2000 bytes in 4 blocks".
std::string describe(std::string_view root, const Counter &held);

// One a line: the blocks from a root to one that it holds, and where in them the pointers lie.
std::vector<std::string> describe_path(const HeldBy &held_by, const Report &report, Names &names);
