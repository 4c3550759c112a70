// What the command line of `k42mc run` asks for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// "5f2ad21c4a2878ff"
inline bool is_stack_name(const std::string &name) {
    constexpr size_t digits = 16;
    return name.size() == digits && name.find_first_not_of("0123456789abcdef") == name.npos;
}

// Of --fail-each.
struct EachOptions {
    bool wanted = false;
    unsigned jobs = 0;       // as many as there are processors
    unsigned time_limit = 0; // seconds; as long as the good run makes plausible
    unsigned sample = 0;     // stacks; all
    bool resume = false;
    std::string setup; // a shell's command, ahead of each run
    bool in_copy = false;
};

struct RunOptions {
    std::string output;
    bool append = false;
    bool text = false;
    unsigned every = 0;
    int signal = 0;
    unsigned limit = 1;
    std::string leak_check = "lost";
    bool no_backtrace = false;
    int depth = 16; // of stack traces, in frames
    std::vector<std::string> filters;
    bool verify = false;
    uint64_t quarantine = 16 << 20;
    std::string fill; // a number; empty for none
    bool fds = false;
    bool follow = true;
    uint32_t page_guards = 0; // one in so many
    std::string page_side = "end", page_alignment = "natural";
    uint64_t page_memory = 0; // as much as usual
    bool go_on = false;
    uint64_t fail_nth = 0, fail_above = 0;
    uint32_t fail_one_in = 0, fail_seed = 0;
    std::string fail_at, fail_only, fail_not; // patterns
    std::string fail_stack;                   // hexadecimal
    bool fail_fds = false;
    bool gdb = false;
    EachOptions each;
    std::string suppressions;
    std::string html, sarif; // files to write
    int error_exitcode = 0;
    std::vector<std::string> only, skip; // names of programs
    std::string program;
    std::vector<std::string> arguments; // the program's

    bool fails_any() const {
        return fail_nth != 0 || fail_above != 0 || fail_one_in != 0 || !fail_at.empty() ||
               !fail_stack.empty() || each.wanted;
    }

    std::vector<std::string> command() const {
        std::vector<std::string> words = {program};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return words;
    }
};
