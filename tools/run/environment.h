// What the shim is told of the options, by variables of the environment.
#pragma once

#include "tools/run/launch.h"
#include "tools/run/options.h"

// But for the folder. Throws std::runtime_error where there is no shim for the program.
std::vector<Setting> environment_for(const RunOptions &options);
