// The files that reports go to: their names, and how they are opened. All with gMCLock held.
#pragma once

namespace k42mc::internal {

// Creates or opens a regular file of this user's for writing, never through a symbolic link, closed on
// exec; `flags` adds to the open flags. Returns a descriptor; -1 with errno set.
int open_regular(const char *name, int flags);

// Opens a report file, named after the program and the time: in the folder that the process chose, or
// in the defined ones. A child's takes the place of nobody else's. Returns a descriptor; -1 with errno set.
int open_report_file(bool for_child);

// Opens a file for more about the same: named as the report file is, where there is one, but for the
// extension (".json"). Returns a descriptor; -1 with errno set.
int open_beside_report(bool there_is_one, const char *extension);

// Of the file that was opened last, or that could not be.
const char *report_path();

} // namespace k42mc::internal
