// What stands between a program and the functions of libc that close streams and directories.
#pragma once

#include "linkage/linkage.h"

#include <dirent.h>
#include <stdio.h>

namespace k42mc::internal {

// Record the close of a stream or directory. False for the second close of one, which libc would not
// survive.
bool records_close(const char *name, FILE *stream);
bool records_close(const char *name, DIR *directory);

} // namespace k42mc::internal
