#include "tools/report/pprof.h"

#include "tools/common/gzip.h"
#include "tools/common/printable.h"

#include <algorithm>
#include <limits>
#include <map>
#include <protozero/pbf_builder.hpp>
#include <tuple>

namespace {

using protozero::pbf_builder;

// The messages, and the numbers of those of their fields that are written.
enum class ProfileField : protozero::pbf_tag_type {
    sample_type = 1,
    sample = 2,
    mapping = 3,
    location = 4,
    function = 5,
    string = 6,
    time_nanos = 9,
    period_type = 11,
    period = 12,
    default_sample_type = 14
};
enum class TypeField : protozero::pbf_tag_type { name = 1, unit = 2 };
enum class SampleField : protozero::pbf_tag_type { locations = 1, values = 2, label = 3 };
enum class LabelField : protozero::pbf_tag_type { key = 1, text = 2, number = 3, unit = 4 };
enum class MappingField : protozero::pbf_tag_type {
    id = 1,
    begin = 2,
    end = 3,
    file_offset = 4,
    file = 5,
    build_id = 6,
    has_functions = 7,
    has_files = 8,
    has_lines = 9,
    has_inlined = 10
};
enum class LocationField : protozero::pbf_tag_type { id = 1, mapping = 2, address = 3, line = 4 };
enum class LineField : protozero::pbf_tag_type { function = 1, line = 2 };
enum class FunctionField : protozero::pbf_tag_type { id = 1, name = 2, system_name = 3, file = 4 };

struct SampleType {
    const char *name, *unit;
    uint64_t (*value)(const Holding &);
};

constexpr SampleType sample_types[] = {
    {"inuse_objects", "count", [](const Holding &holding) { return holding.held.blocks; }},
    {"inuse_space", "bytes", [](const Holding &holding) { return holding.held.bytes; }},
    {"alloc_objects", "count", [](const Holding &holding) { return holding.allocated.blocks; }},
    {"alloc_space", "bytes", [](const Holding &holding) { return holding.allocated.bytes; }},
};

// What viewers show first.
constexpr const char *default_type = "inuse_space";

// The format's numbers are signed.
int64_t signed_number(uint64_t number) {
    return static_cast<int64_t>(std::min<uint64_t>(number, std::numeric_limits<int64_t>::max()));
}

// Values that are written once, by numbers that count from 1 in the order in which they are met.
template <class Key> using Numbers = std::map<Key, uint64_t, std::less<>>;

class Profile {
public:
    Profile(const Report &report, Symbolizer &symbolizer) : report_(report), symbolizer_(symbolizer) {
        text(""); // the format's first
        for (const SampleType &type : sample_types)
            put_type(ProfileField::sample_type, type.name, type.unit);
        put_type(ProfileField::period_type, "space", "bytes");
        message_.add_int64(ProfileField::period, 1); // each byte counts
        message_.add_int64(ProfileField::default_sample_type, text(default_type));
    }

    void add(const Process &process) {
        if (process.cycles.empty())
            return;
        const Cycle &cycle = process.cycles.back();
        time_ = std::max(time_, cycle.time);
        for (const Holding &holding : cycle.holdings)
            put_sample(process, holding);
    }

    const std::string &finish() {
        constexpr int64_t nanoseconds = 1'000'000'000;
        put_mappings();
        for (const std::string &string : strings_)
            message_.add_string(ProfileField::string, string);
        message_.add_int64(
            ProfileField::time_nanos,
            std::min(signed_number(time_), std::numeric_limits<int64_t>::max() / nanoseconds) *
                nanoseconds);
        return data_;
    }

private:
    struct Mapping {
        std::string_view module;
        bool has_functions = true, has_lines = true; // for all of its locations
    };

    // In the table of strings, where all text goes. Those who read the format may insist on UTF-8.
    int64_t text(std::string_view raw) {
        std::string string = printable(raw);
        const auto [known, is_new] = string_numbers_.try_emplace(string, strings_.size());
        if (is_new)
            strings_.push_back(std::move(string));
        return static_cast<int64_t>(known->second);
    }

    void put_type(ProfileField field, const char *name, const char *unit) {
        pbf_builder<TypeField> type(message_, field);
        type.add_int64(TypeField::name, text(name));
        type.add_int64(TypeField::unit, text(unit));
    }

    void put_sample(const Process &process, const Holding &holding) {
        const Site &site = report_.site(holding.site);
        const std::vector<uint64_t> locations = locations_of(site);
        std::vector<int64_t> values;
        for (const SampleType &type : sample_types)
            values.push_back(signed_number(type.value(holding)));
        pbf_builder<SampleField> sample(message_, ProfileField::sample);
        sample.add_packed_uint64(SampleField::locations, locations.begin(), locations.end());
        sample.add_packed_int64(SampleField::values, values.begin(), values.end());
        put_label(sample, "type", site.type);
        put_label(sample, "process", process.name);
        pbf_builder<LabelField> age(sample, SampleField::label);
        age.add_int64(LabelField::key, text("age"));
        age.add_int64(LabelField::number, holding.oldest);
        age.add_int64(LabelField::unit, text("cycles"));
    }

    void put_label(pbf_builder<SampleField> &sample, const char *key, std::string_view value) {
        pbf_builder<LabelField> label(sample, SampleField::label);
        label.add_int64(LabelField::key, text(key));
        label.add_int64(LabelField::text, text(value));
    }

    // Innermost first. Without a stack trace, the source line stands for one.
    std::vector<uint64_t> locations_of(const Site &site) {
        if (site.trace.empty())
            return {location("", site)};
        std::vector<uint64_t> locations;
        locations.reserve(site.trace.size());
        for (const std::string_view pc : without_cut_mark(site.trace))
            locations.push_back(location(pc, locations.empty() ? site : Site()));
        return locations;
    }

    // Of a return address, or of none, where the site's source line is the place unless debug information tells it.
    uint64_t location(std::string_view pc, const Site &site) {
        const auto [known, is_new] =
            locations_.try_emplace({pc, site.file, site.line}, locations_.size() + 1);
        if (is_new)
            put_location(known->second, pc, frames_of(pc, site));
        return known->second;
    }

    std::vector<SourceFrame> frames_of(std::string_view pc, const Site &site) {
        const std::string file(site.file);
        const int line = static_cast<int>(site.line);
        if (pc.empty())
            return {{line != 0 ? file + ":" + std::to_string(line) : file, file, line, false}};
        std::vector<SourceFrame> frames = symbolizer_.lookup(pc);
        if (line != 0 && frames.front().file.empty()) {
            frames.front().file = file;
            frames.front().line = line;
        }
        return frames;
    }

    void put_location(uint64_t id, std::string_view pc, const std::vector<SourceFrame> &frames) {
        const SourceFrame &outermost = frames.back();
        std::vector<uint64_t> functions;
        if (!outermost.function.empty() || !outermost.file.empty())
            for (const SourceFrame &frame : frames)
                functions.push_back(function(frame.function.empty() ? pc : frame.function, frame.file));
        const CodeAddress code = code_address(pc);
        const uint64_t mapping = code.module.empty() ? 0 : mapping_of(code.module, outermost);
        pbf_builder<LocationField> location(message_, ProfileField::location);
        location.add_uint64(LocationField::id, id);
        if (mapping != 0)
            location.add_uint64(LocationField::mapping, mapping);
        if (code.address != 0)
            location.add_uint64(LocationField::address, code.address - 1); // in the call, not behind it
        for (size_t i = 0; i < functions.size(); ++i) {
            pbf_builder<LineField> line(location, LocationField::line);
            line.add_uint64(LineField::function, functions[i]);
            line.add_int64(LineField::line, frames[i].line);
        }
    }

    uint64_t function(std::string_view name, const std::string &file) {
        const auto [known, is_new] =
            functions_.try_emplace({text(name), text(file)}, functions_.size() + 1);
        if (is_new) {
            pbf_builder<FunctionField> function(message_, ProfileField::function);
            function.add_uint64(FunctionField::id, known->second);
            function.add_int64(FunctionField::name, known->first.first);
            function.add_int64(FunctionField::system_name, known->first.first);
            function.add_int64(FunctionField::file, known->first.second);
        }
        return known->second;
    }

    uint64_t mapping_of(std::string_view module, const SourceFrame &outermost) {
        const auto [known, is_new] = mapping_numbers_.try_emplace(module, mappings_.size() + 1);
        if (is_new)
            mappings_.push_back({module});
        Mapping &mapping = mappings_[known->second - 1];
        mapping.has_functions &= !outermost.function.empty();
        mapping.has_lines &= !outermost.file.empty();
        return known->second;
    }

    void put_mappings() {
        for (size_t i = 0; i < mappings_.size(); ++i) {
            const Mapping &known = mappings_[i];
            const CodeSegment code = symbolizer_.code_segment(known.module);
            pbf_builder<MappingField> mapping(message_, ProfileField::mapping);
            mapping.add_uint64(MappingField::id, i + 1);
            mapping.add_uint64(MappingField::begin, code.range.begin);
            mapping.add_uint64(MappingField::end, code.range.end);
            mapping.add_uint64(MappingField::file_offset, code.file_offset);
            mapping.add_int64(MappingField::file, text(known.module));
            mapping.add_int64(MappingField::build_id, text(code.build_id));
            mapping.add_bool(MappingField::has_functions, known.has_functions);
            mapping.add_bool(MappingField::has_files, known.has_lines);
            mapping.add_bool(MappingField::has_lines, known.has_lines);
            mapping.add_bool(MappingField::has_inlined, known.has_lines);
        }
    }

    const Report &report_;
    Symbolizer &symbolizer_;
    uint64_t time_ = 0;
    std::string data_;
    pbf_builder<ProfileField> message_{data_};
    std::vector<std::string> strings_;
    Numbers<std::string> string_numbers_;
    Numbers<std::tuple<std::string_view, std::string_view, int64_t>> locations_;
    Numbers<std::pair<int64_t, int64_t>> functions_;
    Numbers<std::string_view> mapping_numbers_;
    std::vector<Mapping> mappings_;
};

} // namespace

void print_pprof(std::ostream &out, const Report &report, Symbolizer &symbolizer) {
    Profile profile(report, symbolizer);
    for (const Process &process : report.processes)
        profile.add(process);
    put_gzipped(out, profile.finish());
}
