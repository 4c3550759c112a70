#include "tools/report/page_frames.h"

#include <limits>

namespace {

constexpr size_t longest_text = 1000;
constexpr size_t longest_trace = 256;
constexpr size_t all_excerpts = 1'500'000; // bytes
constexpr size_t frame_bytes = 32;
constexpr uint32_t is_inlined = 1, is_startup = 2, is_own = 4; // flags

// Where all that is not plain is written as an escape.
size_t written(std::string_view text) {
    size_t bytes = 3;
    for (const char letter : text)
        bytes += letter < ' ' || letter > '~' || letter == '<' ? 6
                 : letter == '"' || letter == '\\'             ? 2
                                                               : 1;
    return bytes;
}

} // namespace

uint32_t PageFrames::text(std::string_view text) {
    std::string kept(text.substr(0, longest_text));
    if (kept.size() < text.size())
        kept += "…";
    const size_t before = texts_.size();
    const uint32_t number = texts_.number_of(kept);
    if (number == before)
        bytes_ += written(kept);
    return number;
}

uint32_t PageFrames::number_of(const Frame &frame) {
    const size_t before = frames_.size();
    const uint32_t number = frames_.number_of({&frame, 1});
    if (number == before)
        bytes_ += frame_bytes;
    return number;
}

uint32_t PageFrames::excerpt(std::string_view file, int line) {
    if (file.empty() || excerpt_bytes_ > all_excerpts)
        return 0;
    const auto [known, is_new] = excerpt_numbers_.try_emplace({std::string(file), line}, 0);
    if (!is_new)
        return known->second;
    Excerpt excerpt = sources_.around(file, line);
    if (excerpt.lines.empty())
        return 0;
    size_t bytes = 0;
    for (const std::string &each : excerpt.lines)
        bytes += written(each);
    bytes_ += bytes;
    excerpt_bytes_ += bytes;
    excerpts_.push_back(std::move(excerpt));
    return known->second = static_cast<uint32_t>(excerpts_.size());
}

const std::vector<uint32_t> &PageFrames::frames_at(std::string_view pc) {
    const auto [known, is_new] = known_.try_emplace(pc);
    if (is_new)
        for (const StackFrame &source : names_.frames_at(pc)) {
            Frame frame;
            frame.name = text(source.function);
            frame.full = source.full.empty() ? frame.name : text(source.full);
            frame.module = text(module_of(pc));
            frame.flags = (source.inlined ? is_inlined : 0) | (source.is_startup ? is_startup : 0) |
                          (source.is_own ? is_own : 0);
            if (!source.file.empty()) {
                frame.file = text(source.file) + 1;
                frame.line = static_cast<uint32_t>(source.line);
                frame.excerpt = excerpt(source.file, source.line);
            }
            known->second.push_back(number_of(frame));
        }
    return known->second;
}

std::vector<uint32_t> PageFrames::trace(Trace trace) {
    std::vector<uint32_t> frames;
    for (const std::string_view pc : without_cut_mark(trace)) {
        const std::vector<uint32_t> &here = frames_at(pc);
        if (frames.size() + here.size() > longest_trace)
            break;
        frames.insert(frames.end(), here.begin(), here.end());
    }
    return frames;
}

std::vector<uint32_t> PageFrames::trace(const Site &site) {
    std::vector<uint32_t> frames = trace(site.trace);
    if (site.line == 0 && !frames.empty())
        return frames;
    Frame frame;
    const std::string place =
        std::string(site.file) + (site.line != 0 ? ":" + std::to_string(site.line) : "");
    frame.name = frame.full = text(place);
    frame.module = text(site.file);
    if (site.line > 0 && site.line <= std::numeric_limits<int>::max())
        frame.excerpt = excerpt(site.file, static_cast<int>(site.line));
    frame.line = frame.excerpt != 0 ? static_cast<uint32_t>(site.line) : 0;
    frames.insert(frames.begin(), number_of(frame));
    return frames;
}

void PageFrames::put(JsonWriter &out) const {
    out.open("texts", '[');
    for (uint32_t i = 0; i < texts_.size(); ++i)
        out.value(std::string_view(texts_[i].data(), texts_[i].size()));
    out.close(']');
    out.open("frames", '[');
    for (uint32_t i = 0; i < frames_.size(); ++i) {
        const Frame &frame = frames_[i].front();
        out.open('[');
        for (const uint32_t number :
             {frame.name, frame.full, frame.file, frame.line, frame.module, frame.flags, frame.excerpt})
            out.value(number);
        out.close(']');
    }
    out.close(']');
    out.open("excerpts", '[');
    for (const Excerpt &excerpt : excerpts_) {
        out.open('[');
        out.value(excerpt.first);
        for (const std::string &line : excerpt.lines)
            out.value(line);
        out.close(']');
    }
    out.close(']');
}
