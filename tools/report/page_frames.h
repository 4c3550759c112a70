// The texts and the frames of stack traces that stand in a page, each once, with the source around them.
#pragma once

#include "tools/common/pool.h"
#include "tools/report/excerpts.h"
#include "tools/report/json_writer.h"
#include "tools/report/model.h"
#include "tools/report/names.h"

#include <unordered_map>

class PageFrames {
public:
    explicit PageFrames(Names &names) : names_(names) {}

    // Numbers of what put() writes.
    uint32_t text(std::string_view text);
    std::vector<uint32_t> trace(Trace trace);      // innermost first
    std::vector<uint32_t> trace(const Site &site); // with the line that the report names

    size_t bytes() const { return bytes_; } // of what put() writes, at most
    void put(JsonWriter &out) const;

private:
    // Numbers of texts. Those of a file and of an excerpt are one more, so that 0 is none.
    struct Frame {
        uint32_t name = 0, full = 0; // of the function, or what is known instead
        uint32_t file = 0, line = 0;
        uint32_t module = 0;
        uint32_t flags = 0;
        uint32_t excerpt = 0;
    };

    uint32_t number_of(const Frame &frame);
    uint32_t excerpt(std::string_view file, int line);
    const std::vector<uint32_t> &frames_at(std::string_view pc);

    Names &names_;
    Excerpts sources_;
    Pool<char> texts_;
    Pool<Frame> frames_;
    std::vector<Excerpt> excerpts_;
    std::map<std::pair<std::string, int>, uint32_t> excerpt_numbers_;
    std::unordered_map<std::string_view, std::vector<uint32_t>> known_; // by pc, which the report has
    size_t bytes_ = 0, excerpt_bytes_ = 0;
};
