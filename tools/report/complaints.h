// What is wrong with one file.
#pragma once

#include "tools/common/counted.h"
#include "tools/common/printable.h"
#include "tools/report/model.h"

// A damaged file can have as many problems as lines: the first tell enough, the rest is counted.
class Complaints {
public:
    Complaints(Report &report, const std::string &file) : report_(report), file_(file) {}
    Complaints(const Complaints &) = delete;
    Complaints &operator=(const Complaints &) = delete;
    ~Complaints() {
        if (count_ > most)
            report_.problems.push_back({file_, 0, "and " + counted(count_ - most, "more problem")});
    }

    void add(uint64_t line, std::string_view text) {
        if (++count_ <= most)
            report_.problems.push_back({file_, line, shortened(text)});
    }

private:
    static constexpr uint64_t most = 5;

    Report &report_;
    const std::string &file_;
    uint64_t count_ = 0;
};
