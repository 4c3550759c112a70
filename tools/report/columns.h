// The columns of numbers in a table of sites.
#pragma once

#include "tools/report/model.h"

#include <string>
#include <vector>

// As wide as the widest of its texts, with a gap in front.
struct Column {
    std::string heading;
    std::vector<std::string> cells = {}; // one a row

    size_t width() const;
};

// What there is to say of these sites, in lines of that width.
std::vector<Column> columns_of(const Histories &histories, std::span<const SiteHistory> sites,
                               Order order, size_t width);

// "40 bytes in 2 blocks"; where the order is by what was counted since the start, that.
std::string amount_of(const SiteHistory &site, Order order);

// Up to where the site's name stands.
std::string heading_of(std::span<const Column> columns);
std::string row_of(std::span<const Column> columns, size_t row);

// Bytes from cycle to cycle, a character for each, but no more than there is room for.
std::string sparkline(const SiteHistory &site, uint32_t cycles, uint32_t room);
