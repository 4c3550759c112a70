// What stands between the reports of a text: blocks that were found damaged, and defects that were told at once, with the
// stack traces behind them.
#pragma once

#include "tools/report/model.h"

#include <array>
#include <functional>
#include <unordered_map>
#include <vector>

class DefectReader {
public:
    // Whose defects these are; called when one begins.
    using CurrentProcess = std::function<Process &()>;

    DefectReader(Report &report, CurrentProcess process)
        : report_(report), process_(std::move(process)) {}

    // What programs print goes by.
    void read(std::string_view line);

    // Nothing more is coming of the defect that was read last.
    void end();

    // What follows is another process's.
    void forget() { damaged_.clear(); }

private:
    enum class Inside { nothing, damage, stop };
    enum Deed { of_access, of_release, of_first_release, of_allocation, deed_count };

    bool continues(std::string_view line);
    bool take_heading(std::string_view line);
    bool take_words(std::string_view line);
    void begin(std::string_view line);
    void end_damage();
    void end_stop();
    Trace trace_of(Deed deed) { return report_.trace(traces_[deed]); }

    Report &report_;
    CurrentProcess process_;
    Inside inside_ = Inside::nothing;
    Damage damage_;
    Site damage_site_;
    Stop stop_;
    std::array<std::vector<std::string_view>, deed_count> traces_;
    std::vector<std::string_view> *trace_ = nullptr; // whose lines may follow
    std::unordered_map<uint64_t, size_t> damaged_;   // the process's damages, by address
};
