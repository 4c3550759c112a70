// What people read in place of the addresses of a stack.
#pragma once

#include "tools/common/fit.h"
#include "tools/common/symbols.h"
#include "tools/report/model.h"

#include <unordered_map>

struct StackFrame {
    std::string_view pc;
    std::string function; // short; the pc where no symbol covers it
    std::string full;     // the same as its source has it
    std::string file;     // empty when there is no debug information
    int line = 0;
    bool inlined = false;
    bool is_own = false;     // the program's, not that of a library that allocates for others
    bool is_startup = false; // of what calls main, or a thread's function
    size_t times = 1;        // that the function called itself

    std::string
    place() const; // "net.c:12", or where in which module; empty where the pc is all that is known
    // "serve × 3 at net.c:12", in one line of a terminal.
    std::string text(size_t width = any_width) const;
};

// A site in one line.
struct SiteName {
    std::string function; // empty where the report has a line of the source
    std::string place;
    std::vector<std::string> callers;
    std::string type;

    std::string label() const; // "serve at net.c:12"
    std::string text() const;  // "serve at net.c:12 < main (STD)"
    // The same in one line of a terminal: in less width without callers, type, and folders, in this order.
    std::string fitted(size_t width) const;
};

class Names {
public:
    struct Options {
        std::vector<std::string>
            skipped; // patterns of functions, files and modules that are not the program's own
        bool all_frames = false;
        bool libc_lines = true; // of the C library's own source: to find them takes long
    };

    explicit Names(Symbolizer &symbolizer) : Names(symbolizer, {}) {}
    Names(Symbolizer &symbolizer, Options options);

    Symbolizer &symbolizer() { return symbolizer_; }

    // Innermost first, with what is inlined.
    const std::vector<StackFrame> &frames_at(std::string_view pc);
    // Those of a stack, without start-up code unless all are wanted, and recursion folded.
    std::vector<StackFrame> frames(Trace trace);

    // Where the report has no line: by the innermost frame of the program's own.
    SiteName name(const Site &site);

private:
    StackFrame frame(std::string_view pc, const SourceFrame &source) const;

    Symbolizer &symbolizer_;
    const Options options_;
    std::unordered_map<std::string_view, std::vector<StackFrame>> known_; // by pc, which the report has
};
