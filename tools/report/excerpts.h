// Lines of source files, as far as they lie on this machine.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// A few lines, and the number of the first.
struct Excerpt {
    int first = 0;
    std::vector<std::string> lines;
};

// Reports name the files, and may come from anywhere: only regular files of text that are called like
// sources, after links too, are read, and only so much of all of them.
class Excerpts {
public:
    // The line and those next to it; empty where there is no such file or line.
    Excerpt around(std::string_view file, int line);

private:
    struct Source {
        std::string text;
        std::vector<uint32_t> begins; // of the lines, and the end
    };

    const Source &source(std::string_view file);

    std::map<std::string, Source, std::less<>> files_;
    uint64_t read_ = 0; // bytes of all files
};
