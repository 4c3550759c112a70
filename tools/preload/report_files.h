// The two files that this process leaves in the folder for reports: "<program>.<pid>.txt" and ".json", with a
// number behind the pid where there are others of the name. Nobody else's file is ever opened: they are
// created exclusively, and opened again only as the very files that they were.
#pragma once

#include "base/kept_file.h"

#include <unistd.h>

// Takes note of the folder that the environment names and of the program's name: a server overwrites both
// with what it wants to be called. False without a folder.
bool find_report_folder();

const char *program_name();

// One of the two, held open from the start: a server may give up the right to open files in the folder.
// Programs close descriptors that they do not know, and use the numbers for something of their own; the file
// is then opened again.
class ReportFile {
public:
    constexpr explicit ReportFile(const char *extension) : extension_(extension) {}

    // Below an open folder. False with errno set, EEXIST for a name that is taken.
    bool create(int folder);
    void remove(int folder);

    void close() { ::close(release()); }

    // Leaves it open for the caller to close; -1 where it is not open.
    int release();

    // Returns -1 when the file cannot be opened again.
    int descriptor();

    // To another descriptor; the old one stays open.
    void move();

    // Whether that descriptor is the one that is held open.
    bool is_at(int descriptor) const { return descriptor == number_ && file_.is_same(descriptor); }
    int number() const { return number_; }

private:
    void name_into(char *name) const;
    bool take(int descriptor);

    const char *extension_;
    bool created_ = false;
    int number_ = -1; // the descriptor, unless the program has made it another's
    k42mc::internal::KeptFile file_;
};

extern ReportFile text_file;
extern ReportFile json_file;

// Creates both, in a forked child its own in place of its parent's. False, with neither of them, when that is
// not possible; of a child, that stands in its parent's.
bool create_report_files();

// Says in an open file of JSON that the process goes on as another program. False where that cannot be written.
bool write_start(int file, const char *program);

// The same in a file for a process that has none: below this program's name and the process's number. Returns whether
// there is one now.
bool leave_start(pid_t process, const char *program);
void take_start_back(pid_t process);

// Whether nothing but its first line was written to this process's own JSON; and as if nothing had been.
bool json_is_unused();
void empty_json();

// Removes this process's own where nothing was written to them.
void remove_unused_report_files();
