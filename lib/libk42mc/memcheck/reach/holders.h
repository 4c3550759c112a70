// What holds the blocks of the largest sites: so a table that only grows is found by the variable that it hangs on.
#pragma once

#include "memcheck/reach/chain.h"
#include "memcheck/traffic.h"

namespace k42mc::internal {

// A root, and what it is the beginning of the shortest chain to.
struct Holder {
    char root[Root::most_text_bytes];
    MCCounter held;
};

struct HeldSite {
    static constexpr size_t most_holders = 8, most_links = 16;

    uint32_t holder_count, link_count;
    Holder holders[most_holders]; // of most bytes first
    MCCounter others;             // what other roots hold
    Link links[most_links];       // one chain, from the first holder on; the last is a block of the site
    size_t left_out; // links, of a longer chain, behind the first half of those that are shown
};

struct HeldSites {
    static constexpr size_t most = 16;

    uint32_t count;
    HeldSite sites[most]; // of most bytes first
};

// Of those blocks that reports would list and that have survived so many of them, by a search that has noted origins. Tells
// of nothing where memory runs out.
void find_holders(const Search &search, const Moment &moment, uint32_t limit, HeldSites &held);

} // namespace k42mc::internal
