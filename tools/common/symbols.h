// From addresses in reports to functions and source lines.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct SourceFrame {
    std::string function; // demangled; empty when no symbol covers the address
    std::string file;     // empty when there is no debug information
    int line = 0;
    bool inlined = false; // into the frame that follows
};

// Reads each module once and keeps it open, and remembers what it has found. Not for several threads at
// a time.
class Symbolizer {
public:
    Symbolizer();
    ~Symbolizer();
    Symbolizer(const Symbolizer &) = delete;
    Symbolizer &operator=(const Symbolizer &) = delete;

    // What stands at a return address: the functions around the call ahead of it, innermost first. It is
    // written "/usr/lib/libfoo.so.1+0x1a2b", the offset counting from where the module is loaded, or as
    // traces have it, "/usr/lib/libfoo.so.1(function+0x2b) [0x7f12a2b]". Always at least one frame; an
    // empty one when nothing is known. Valid as long as this is.
    const std::vector<SourceFrame> &lookup(std::string_view place);

private:
    struct Modules;
    std::unique_ptr<Modules> modules_;
};

// "function at file:line", as far as they are known.
std::string describe(std::string_view place, const SourceFrame &frame);

// The module of a place.
std::string_view module_of(std::string_view place);
