// What this process has to say, and the defect that stops it.
#pragma once

#include "memcheck/reach/moment.h"
#include "tools/preload/endings.h"

#include <span>
#include <stdint.h>

// Opens the files and lends the checker the text as its sink. False when there is no folder, or
// the files cannot be made there.
bool open_outputs();

// In a child of fork: files of its own.
void renew_outputs();

// One more report, as lines of JSON and, where they are wanted, of text. It says what is lost where somebody searches:
// whom the program called, since what lies on the stack below holds nothing.
void write_report(uint32_t limit, const k42mc::internal::Caller *searcher);

// One with a search. Returns whether blocks are lost that the program does not suppress. Once `settles`, its search
// stands for those of later reports.
bool write_leak_report(uint32_t limit, const k42mc::internal::Caller &searcher, bool settles);

// What each process's file says ahead of its first report; null for nothing: the program's suppressions, and a note.
void write_with_reports(const char *suppressions, const char *note);

// What the checker says here, on this thread, is a matter of course, and only said where text is wanted. Elsewhere
// its lines are about something that no report has: they always find their file.
class MatterOfCourse {
public:
    MatterOfCourse();
    ~MatterOfCourse();
    MatterOfCourse(const MatterOfCourse &) = delete;
    MatterOfCourse &operator=(const MatterOfCourse &) = delete;
};

// That nobody looks after this process, and why.
void write_unchecked(const char *reason);

// That a signal ends this process, and where it struck. Nothing for a process that a defect has stopped.
void write_ending(const Ending &ending);

// Something that a user of the report should know, and where it happened.
void write_note(const char *text, std::span<void *const> trace = {});
