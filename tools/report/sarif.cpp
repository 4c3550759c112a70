#include "tools/report/sarif.h"

#include "tools/common/counted.h"
#include "tools/report/trace_match.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;

struct Rule {
    const char *id, *level, *text;
};

// A defect's has the letters that its line begins with.
constexpr Rule rules[] = {
    {"k42mc/WO", "error", "A block was written past its end."},
    {"k42mc/WU", "error",
     "A block was written before its start, or released by a pointer that is not its start."},
    {"k42mc/WF", "error", "A block was written after its release."},
    {"k42mc/RO", "error", "A block was read past its end."},
    {"k42mc/RU", "error", "A block was read before its start."},
    {"k42mc/RF", "error", "A block was read after its release."},
    {"k42mc/DF", "error", "A block was released twice."},
    {"k42mc/BF", "error",
     "A block was released to another allocator than its own, or something that is no block."},
    {"k42mc/defect", "error", "A block was misused."},
    {"k42mc/signal", "error", "A signal ended the program."},
    {"k42mc/descriptor", "error",
     "A descriptor was closed twice, or a standard one opened or closed again."},
    {"k42mc/failed-allocation", "error", "The program does not withstand an allocation that fails."},
    {"k42mc/lost", "warning", "Nothing leads to memory that was not released."},
    {"k42mc/left-open", "warning", "A descriptor was left open."},
    {"k42mc/left", "note", "Memory was held to the end."},
    {"k42mc/note", "note", "Something to know of the run."}};

const Rule &rule_named(std::string_view name) {
    const std::string id = "k42mc/" + std::string(name);
    const Rule *const known =
        std::ranges::find_if(rules, [&](const Rule &rule) { return id == rule.id; });
    return known != std::end(rules) ? *known : rule_named("defect");
}

// Two letters behind a text.
const Rule &rule_of_defect(std::string_view text, std::string_view before) {
    const size_t at = text.find(before);
    return rule_named(at == text.npos ? "defect" : text.substr(at + before.size(), 2));
}

const Rule &rule_of(const Group &group) {
    if (group.what == "lost" || group.what == "left")
        return rule_named(group.what);
    return rule_of_defect(group.what, "(");
}

const Rule &rule_of(const Finding &finding) {
    switch (finding.kind) {
    case Finding::Kind::stopped:
    case Finding::Kind::went_on:
        return rule_of_defect(finding.title, "k42mc detected ");
    case Finding::Kind::crashed:
        return rule_named("signal");
    case Finding::Kind::failed_run:
        return rule_named("failed-allocation");
    default:
        return rule_named("note");
    }
}

struct Result {
    const Rule *rule;
    std::string text;
    std::vector<Trail> trails;
    std::string_view process;
};

// As far as a name is one in the file system, in the form that addresses have.
std::string escaped(std::string_view path) {
    std::string text;
    for (const char letter : path) {
        const auto byte = static_cast<unsigned char>(letter);
        if (isalnum(byte) != 0 || strchr("/._-~+", letter) != nullptr) {
            text += letter;
        } else {
            char code[4];
            snprintf(code, sizeof code, "%%%02X", byte);
            text += code;
        }
    }
    return text;
}

struct Frame {
    std::string_view pc;
    SourceFrame source;
    bool is_own = false; // in a source file below the root
};

class Sarif {
public:
    Sarif(const Put &put, const std::string &root, Symbolizer &symbolizer)
        : out_(put), root_(root + "/"), symbolizer_(symbolizer) {}

    void write(const std::vector<Result> &results) {
        out_.open('{');
        out_.member("$schema", "https://json.schemastore.org/sarif-2.1.0.json");
        out_.member("version", "2.1.0");
        out_.open("runs", '[');
        out_.open('{');
        write_tool();
        out_.open("originalUriBaseIds", '{');
        out_.open("SRCROOT", '{');
        out_.member("uri", "file://" + escaped(root_));
        out_.close('}');
        out_.close('}');
        out_.open("results", '[');
        for (const Result &result : results)
            write(result);
        out_.close(']');
        out_.close('}');
        out_.close(']');
        out_.close('}');
    }

private:
    void write_text(const char *name, const std::string &text) {
        out_.open(name, '{');
        out_.member("text", text);
        out_.close('}');
    }

    void write_tool() {
        out_.open("tool", '{');
        out_.open("driver", '{');
        out_.member("name", "k42mc");
        out_.open("rules", '[');
        for (const Rule &rule : rules) {
            out_.line();
            out_.open('{');
            out_.member("id", rule.id);
            write_text("shortDescription", rule.text);
            out_.open("defaultConfiguration", '{');
            out_.member("level", rule.level);
            out_.close('}');
            out_.close('}');
        }
        out_.close(']');
        out_.close('}');
        out_.close('}');
    }

    std::vector<Frame> frames_of(Trace trace) {
        std::vector<Frame> frames;
        for (const std::string_view pc : without_cut_mark(trace))
            for (const SourceFrame &source : frames_at(pc, symbolizer_))
                frames.push_back({pc, source, source.file.starts_with(root_)});
        return frames;
    }

    void write_artifact(const std::string &path) {
        out_.open("artifactLocation", '{');
        if (path.starts_with(root_)) {
            out_.member("uri", escaped(path.substr(root_.size())));
            out_.member("uriBaseId", "SRCROOT");
        } else {
            out_.member("uri", (path.starts_with('/') ? "file://" : "") + escaped(path));
        }
        out_.close('}');
    }

    // Without debug information, the module stands for the source file.
    void write_location(const Frame &frame) {
        out_.open("physicalLocation", '{');
        write_artifact(frame.source.file.empty() ? std::string(module_of(frame.pc)) : frame.source.file);
        if (frame.source.line > 0) {
            out_.open("region", '{');
            out_.member("startLine", frame.source.line);
            out_.close('}');
        }
        out_.close('}');
        if (!frame.source.function.empty()) {
            out_.open("logicalLocations", '[');
            out_.open('{');
            out_.member("fullyQualifiedName", frame.source.function);
            out_.member("kind", "function");
            out_.close('}');
            out_.close(']');
        }
        write_text("message", describe(frame.pc, frame.source));
    }

    // From the outside in, as the program went.
    void write_flow(const Trail &trail, const std::vector<Frame> &frames) {
        out_.open('{');
        write_text("message", trail.heading);
        out_.open("threadFlows", '[');
        out_.open('{');
        out_.open("locations", '[');
        for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
            out_.open('{');
            out_.open("location", '{');
            write_location(*frame);
            out_.close('}');
            out_.close('}');
        }
        out_.close(']');
        out_.close('}');
        out_.close(']');
        out_.close('}');
    }

    // Lines are left out, and what is left of two places in one function is told apart by their order.
    std::string fingerprint(const Result &result, const std::vector<Frame> &frames) {
        std::string text = result.rule->id;
        for (const Frame &frame : frames) {
            text += '\n' + frame.source.function + '\n';
            text += frame.is_own ? frame.source.file.substr(root_.size())
                                 : fs::path(module_of(frame.pc)).filename().string();
        }
        uint64_t hash = 0xcbf29ce484222325;
        for (const char letter : text)
            hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3;
        char digits[40];
        snprintf(digits, sizeof digits, "%016" PRIx64 ":%u", hash, ++repeated_[hash]);
        return digits;
    }

    void write(const Result &result) {
        std::vector<std::vector<Frame>> all;
        for (const Trail &trail : result.trails)
            all.push_back(frames_of(trail.trace));
        const std::vector<Frame> first = all.empty() ? std::vector<Frame>() : all.front();
        out_.line();
        out_.open('{');
        out_.member("ruleId", result.rule->id);
        out_.member("level", result.rule->level);
        write_text("message", result.text);
        if (!first.empty()) {
            const auto own = std::ranges::find_if(first, &Frame::is_own);
            out_.open("locations", '[');
            out_.open('{');
            write_location(own != first.end() ? *own : first.front());
            out_.close('}');
            out_.close(']');
        }
        write_flows(result, all);
        out_.open("partialFingerprints", '{');
        out_.member("k42mc/v1", fingerprint(result, first));
        out_.close('}');
        out_.open("properties", '{');
        out_.member("process", result.process);
        out_.close('}');
        out_.close('}');
    }

    void write_flows(const Result &result, const std::vector<std::vector<Frame>> &all) {
        if (std::ranges::all_of(all, &std::vector<Frame>::empty))
            return;
        out_.open("codeFlows", '[');
        for (size_t i = 0; i < all.size(); ++i)
            if (!all[i].empty())
                write_flow(result.trails[i], all[i]);
        out_.close(']');
    }

    JsonWriter out_;
    const std::string root_;
    Symbolizer &symbolizer_;
    std::map<uint64_t, unsigned> repeated_;
};

std::string text_of(const Group &group, const char *noun) {
    std::string text = group.what + ": " + counted(group.count, noun);
    if (group.bytes != 0)
        text += ", " + counted(group.bytes, "byte");
    return text;
}

Result result_of(const Group &group, const Rule &rule, const char *noun, const char *deed,
                 std::string_view process) {
    Result result = {&rule, text_of(group, noun), {{deed, group.trace}}, process};
    if (!group.before.empty())
        result.trails.push_back({"and before by", group.before});
    return result;
}

std::string source_root() {
    const fs::path current = fs::current_path();
    std::error_code error;
    for (fs::path folder = current; folder.has_relative_path(); folder = folder.parent_path())
        if (fs::exists(folder / ".git", error))
            return folder;
    return current;
}

} // namespace

void put_sarif(const Put &put, const Findings &findings, const std::string &root,
               Symbolizer &symbolizer) {
    std::vector<Result> results;
    for (const Findings::Part &part : findings.parts()) {
        for (const Group &group : part.blocks)
            results.push_back(result_of(group, rule_of(group), "block", "allocated by", part.name));
        for (const Group &group : part.descriptors)
            results.push_back(result_of(group, rule_named(group.certain ? "descriptor" : "left-open"),
                                        "descriptor", group.certain ? "closed by" : "opened by",
                                        part.name));
        for (const Finding &remark : part.remarks)
            if (remark.is_fault())
                results.push_back({&rule_of(remark), remark.title, remark.trails, part.name});
    }
    Sarif(put, root, symbolizer).write(results);
}

void print_sarif(std::ostream &out, const Findings &findings, Symbolizer &symbolizer) {
    put_sarif([&](std::string_view piece) { out << piece; }, findings, source_root(), symbolizer);
}
