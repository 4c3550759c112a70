// From addresses in reports to functions and source lines.
#pragma once

#include <cstdint>
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

// By the addresses of the module's file.
struct CodeRange {
    uint64_t begin, end;
};

// What of a module's file is code, and which build of it this is.
struct CodeSegment {
    CodeRange range = {}; // whole pages
    uint64_t file_offset = 0;
    std::string build_id = {}; // hexadecimal
};

// Reads each module once and keeps it open, and remembers what it has found, up to bounds: reports may
// come from anywhere. Modules are regular ELF files of at most a gibibyte; nothing else is opened. Not
// for several threads at a time.
class Symbolizer {
public:
    Symbolizer();
    ~Symbolizer();
    Symbolizer(const Symbolizer &) = delete;
    Symbolizer &operator=(const Symbolizer &) = delete;

    // What stands at a return address: the functions around the call in front of it, innermost first. It
    // is written "/usr/lib/libfoo.so.1+0x1a2b", by the address that the module's file has for it, or
    // as printed traces have it, "/usr/lib/libfoo.so.1(function+0x2b) [0x7f12a2b]". Always at least one
    // frame; an empty one when nothing is known. Valid until the next lookup.
    const std::vector<SourceFrame> &lookup(std::string_view pc);

    // The function around that call by the symbol table alone, which takes much less time; empty when none is
    // known.
    const std::string &function(std::string_view pc);

    // Where a module has the code of source files whose names match, as far as debug information tells.
    std::vector<CodeRange> code_of(const std::string &module, std::string_view source);

    // Empty when the module cannot be read.
    CodeSegment code_segment(std::string_view module);

private:
    struct Modules;
    std::unique_ptr<Modules> modules_;
};

// Whether this is a line of a printed trace, "/usr/bin/p(function+0x12) [0x55ee]".
bool is_trace_line(std::string_view line);

// "function at file:line", as far as they are known.
std::string describe(std::string_view pc, const SourceFrame &frame);

// A symbol's name as its source has it.
std::string demangled(std::string name);

// A return address that stands alone or by a module's file: "/usr/bin/p+0x1a2b", "0x7f12". Nothing for what is neither.
struct CodeAddress {
    std::string_view module = {};
    uint64_t address = 0;
};
CodeAddress code_address(std::string_view pc);

// The module of a return address.
std::string_view module_of(std::string_view pc);
