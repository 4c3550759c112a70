// Whether a pattern of a suppression matches a stack trace.
#pragma once

#include "tools/common/symbols.h"
#include "tools/report/model.h"

// Of libc functions alone: its debug information, where somebody has it, takes longer to read than many a program
// to run, and the line in question is none of its own.
std::vector<SourceFrame> frames_at(std::string_view pc, Symbolizer &symbolizer);

// By what is known of a frame without debug information, which takes long to read: its module and its function.
bool matches_symbol(std::string_view pattern, std::string_view pc, Symbolizer &symbolizer);

// Any frame by its module, its function, functions that the compiler inlined there, or its source file.
bool matches_trace(std::string_view pattern, Trace trace, Symbolizer &symbolizer);

// What a program suppresses itself does not count as lost.
void heed_own_suppressions(Report &report, Symbolizer &symbolizer);
