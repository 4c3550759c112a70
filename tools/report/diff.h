// What grew between two reports.
#pragma once

#include "tools/report/model.h"
#include "tools/report/names.h"

#include <ostream>

struct Change {
    Site site;
    Counter before;
    Counter after;

    int64_t bytes() const { return static_cast<int64_t>(after.bytes - before.bytes); }
    int64_t blocks() const { return static_cast<int64_t>(after.blocks - before.blocks); }
};

// Sites whose holdings differ, most growth first.
std::vector<Change> changes_between(const Report &before, const Report &after);

void print_changes(std::ostream &out, const std::vector<Change> &changes, size_t top, Names &names);
