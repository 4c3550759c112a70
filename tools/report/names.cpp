#include "tools/report/names.h"

#include "tools/common/printable.h"
#include "tools/common/short_name.h"
#include "tools/report/trace_match.h"
#include "tools/shared/pattern.h"

#include <algorithm>
#include <array>

namespace {

// What allocates for others, in libraries that most programs have.
constexpr std::array<std::string_view, 31> allocators = {
    "^std::",     "^__gnu_cxx::", "^__cxxabiv1::",  "^operator new",   "^operator delete",  "^malloc$",
    "^calloc$",   "^realloc$",    "^reallocarray$", "^aligned_alloc$", "^posix_memalign$",  "^memalign$",
    "^valloc$",   "^strdup$",     "^strndup$",      "^asprintf$",      "^vasprintf$",       "^xmalloc$",
    "^xcalloc$",  "^xzalloc$",    "^xrealloc$",     "^xstrdup$",       "^xstrndup$",        "^g_malloc",
    "^g_realloc", "^g_strdup",    "^g_slice_",      "^PyMem_",         "^PyObject_Malloc$", "^_PyMem_",
    "^_PyObject_"};
constexpr std::array<std::string_view, 6> libraries = {"/libstdc++.so.", "/libc++.so.", "/libc.so.",
                                                       "/ld-linux",      "/libk42mc",   "/libasan.so."};
// Debug information does not always say that an inlined function is of std.
constexpr std::array<std::string_view, 2> headers = {"/include/c++/", "/usr/lib/gcc/"};

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool is_startup(std::string_view module, std::string_view function) {
    return contains(module, "/libc.so.") || function == "_start";
}

std::string joined(std::string_view function, std::string_view place) {
    return std::string(function).append(place.empty() ? "" : " at ").append(place);
}

} // namespace

std::string StackFrame::place() const {
    if (!file.empty())
        return file + ":" + std::to_string(line);
    return function == pc ? "" : std::string(pc);
}

std::string StackFrame::text(size_t width) const {
    const std::string end =
        (times > 1 ? " × " + std::to_string(times) : "") + (inlined ? " (inlined)" : "");
    const std::string name = printable(function), where = printable(place());
    if (where.empty())
        return (name.starts_with('/') ? fit_path : fit_name)(name, left_behind(width_of(end), width)) +
               end;
    const std::string before = file.empty() ? " (" : " at ", behind = file.empty() ? ")" : "";
    const size_t taken = width_of(end + before + behind);
    const std::string fitting = fit_path(where, left_behind(taken + width_of(name), width));
    return fit_name(name, left_behind(taken + width_of(fitting), width)) + end + before + fitting +
           behind;
}

std::string SiteName::label() const {
    return function.empty() ? place : joined(function, place);
}

std::string SiteName::text() const {
    std::string text = label();
    for (const std::string &caller : callers)
        text += " < " + caller;
    return text + " (" + type + ")";
}

std::string SiteName::fitted(size_t width) const {
    const std::string name = printable(label()), type_text = printable(" (" + type + ")");
    for (const std::string &whole : {printable(text()), name + type_text, name})
        if (fits(whole, width))
            return whole;
    const std::string where = printable(place), what = printable(function);
    if (what.empty())
        return fit_path(where, width);
    const std::string with_file =
        joined(what, fit_path(where, left_behind(width_of(what + " at "), width)));
    return fits(with_file, width) ? with_file : fit_name(what, width);
}

Names::Names(Symbolizer &symbolizer, Options options)
    : symbolizer_(symbolizer), options_(std::move(options)) {}

StackFrame Names::frame(std::string_view pc, const SourceFrame &source) const {
    const std::string_view module = module_of(pc);
    StackFrame frame{.pc = pc,
                     .function = source.function.empty() ? std::string(pc) : short_name(source.function),
                     .full = source.function,
                     .file = source.file,
                     .line = source.line,
                     .inlined = source.inlined,
                     .is_startup = is_startup(module, source.function)};
    const auto matches = [&](std::string_view pattern) {
        return matches_pattern(pattern, frame.function) || matches_pattern(pattern, frame.full) ||
               matches_pattern(pattern, frame.file) || matches_pattern(pattern, module);
    };
    const auto allocates = [&](std::string_view pattern) {
        return matches_pattern(pattern, frame.function);
    };
    const auto is_in_module = [&](std::string_view name) { return contains(module, name); };
    const auto is_in_header = [&](std::string_view folder) { return contains(frame.file, folder); };
    frame.is_own = !frame.is_startup && pc != cut_mark && std::ranges::none_of(allocators, allocates) &&
                   std::ranges::none_of(libraries, is_in_module) &&
                   std::ranges::none_of(headers, is_in_header) &&
                   std::ranges::none_of(options_.skipped, matches);
    return frame;
}

const std::vector<StackFrame> &Names::frames_at(std::string_view pc) {
    const auto [known, is_new] = known_.try_emplace(pc);
    if (is_new)
        for (const SourceFrame &source :
             options_.libc_lines ? symbolizer_.lookup(pc) : ::frames_at(pc, symbolizer_))
            known->second.push_back(frame(pc, source));
    return known->second;
}

std::vector<StackFrame> Names::frames(Trace trace) {
    std::vector<StackFrame> frames;
    for (const std::string_view pc : trace)
        for (const StackFrame &frame : frames_at(pc)) {
            if (!frames.empty() && frames.back().function == frame.function && frame.function != pc)
                ++frames.back().times;
            else
                frames.push_back(frame);
        }
    while (!options_.all_frames && frames.size() > 1 && frames.back().is_startup)
        frames.pop_back();
    return frames;
}

SiteName Names::name(const Site &site) {
    constexpr size_t most_callers = 2;
    SiteName name;
    name.type = site.type;
    if (site.line != 0 || site.trace.empty()) {
        name.place = site.file;
        if (site.line != 0)
            name.place += ":" + std::to_string(site.line);
        return name;
    }
    for (const std::string_view pc : site.trace)
        for (const StackFrame &frame : frames_at(pc)) {
            if (!frame.is_own)
                continue;
            if (!name.function.empty() && name.callers.size() < most_callers) {
                if (frame.function != (name.callers.empty() ? name.function : name.callers.back()))
                    name.callers.push_back(frame.function);
            } else if (name.function.empty()) {
                name.function = frame.function;
                name.place = frame.file.empty() ? "" : frame.place();
            }
        }
    if (name.function.empty()) {
        const StackFrame &innermost = frames_at(site.trace.front()).front();
        name.function = innermost.function;
        name.place = innermost.file.empty() ? "" : innermost.place();
    }
    return name;
}
