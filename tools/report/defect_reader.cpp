#include "tools/report/defect_reader.h"

#include "tools/common/symbols.h"
#include "tools/report/block_line.h"

namespace {

constexpr std::string_view stop_head = "k42mc detected ";
constexpr std::string_view words_head = "k42mc: ";
constexpr std::string_view heading_head = "Backtrace of the ";
constexpr std::string_view abort_head =
    "assertion \"0\" failed: file \"common/lib/libk42mc/k42mc_debug\"";

Damage::Kind kind_of(std::string_view code) {
    return code == "WO"   ? Damage::Kind::past_end
           : code == "WU" ? Damage::Kind::before_start
                          : Damage::Kind::after_release;
}

} // namespace

void DefectReader::read(std::string_view line) {
    if (inside_ == Inside::nothing || !continues(line))
        begin(line);
}

bool DefectReader::continues(std::string_view line) {
    if (trace_ != nullptr && is_trace_line(line)) {
        trace_->emplace_back(report_.text(line));
        return true;
    }
    if (line == "------") {
        trace_ = nullptr;
        if (inside_ == Inside::damage && damage_.kind != Damage::Kind::after_release)
            end();
        return true;
    }
    if (inside_ == Inside::stop && line.starts_with(abort_head)) {
        stop_.goes_on = false;
        end();
        return true;
    }
    return take_heading(line) || take_words(line);
}

// "Backtrace of the access by thread 5:". Each comes once: a second one is somebody else's.
bool DefectReader::take_heading(std::string_view line) {
    if (!line.starts_with(heading_head))
        return false;
    static constexpr std::array<std::string_view, deed_count> deeds = {"access", "release",
                                                                       "first release", "allocation"};
    line.remove_prefix(heading_head.size());
    trace_ = nullptr;
    for (size_t i = 0; i < deeds.size(); ++i)
        if (line == std::string(deeds[i]) + ":" || line.starts_with(std::string(deeds[i]) + " by "))
            trace_ = &traces_[i];
    if (trace_ != nullptr && !trace_->empty())
        end();
    return true;
}

bool DefectReader::take_words(std::string_view line) {
    if (inside_ != Inside::stop || !stop_.words.empty() || !line.starts_with(words_head))
        return false;
    stop_.words = report_.text(line.substr(words_head.size()));
    stop_.goes_on = stop_.is_access(); // unless the process ends, by a line that follows
    return true;
}

void DefectReader::begin(std::string_view line) {
    if (line.starts_with(stop_head)) {
        end();
        inside_ = Inside::stop;
        stop_ = {};
        stop_.text = report_.text(line);
        return;
    }
    const std::optional<BlockLine> block = parse_block_line(line);
    if (!block || block->what == "LK")
        return;
    end();
    inside_ = Inside::damage;
    damage_ = {kind_of(block->what), 0, block->cycles, block->address, block->size};
    damage_site_ = {
        report_.text(block->site.file), block->site.line, report_.text(block->site.type), {}};
}

void DefectReader::end() {
    if (inside_ == Inside::damage)
        end_damage();
    else if (inside_ == Inside::stop)
        end_stop();
    inside_ = Inside::nothing;
    trace_ = nullptr;
    for (std::vector<std::string_view> &trace : traces_)
        trace.clear();
}

// A block that several verifications found counts once.
void DefectReader::end_damage() {
    const bool released = damage_.kind == Damage::Kind::after_release;
    damage_site_.trace = traces_[released ? of_release : of_allocation];
    damage_.site = report_.site_number(damage_site_);
    if (released)
        damage_.allocation = trace_of(of_allocation);
    std::vector<Damage> &damages = process_().damages;
    const auto [known, is_new] = damaged_.try_emplace(damage_.address, damages.size());
    if (is_new)
        damages.push_back(damage_);
    else
        damages[known->second] = damage_;
}

void DefectReader::end_stop() {
    if (stop_.is_access()) {
        stop_.trace = trace_of(of_access);
        stop_.block = trace_of(of_allocation);
        stop_.release = trace_of(of_release);
    } else {
        stop_.trace = trace_of(of_release);
        stop_.block = trace_of(stop_.is_double_free() ? of_first_release : of_allocation);
    }
    process_().stops.push_back(stop_);
}
