#include "memcheck/reach/holders.h"

#include "memcheck/registry.h"
#include "memcheck/site_table.h"
#include "platform/platform.h"

#include <algorithm>

namespace k42mc::internal {
namespace {

// Roots that are told apart. To find out about one can take a millisecond; of further ones, what is known of their
// surroundings has to do.
constexpr size_t most_roots = 256, most_inquiries = 1024;

class HolderSearch {
public:
    HolderSearch(const Search &search, const Moment &moment, uint32_t limit)
        : search_(search), moment_(moment), limit_(limit), memory_(bytes_for(search.blocks().size())),
          firsts_(memory_.take<uint32_t>(search.blocks().size())),
          shares_(memory_.take<Share>(search.blocks().size())),
          holding_(memory_.take<uint32_t>(search.blocks().size())),
          ranks_(memory_.take<uint8_t>(search.blocks().size())),
          totals_(memory_.take<uint64_t>(most_sites())), roots_(memory_.take<KnownRoot>(most_roots)) {}

    void run(HeldSites &held);

private:
    struct KnownRoot {
        Root root;
        MCCounter held; // of the site that is looked at, as the next is
        uint32_t words;
    };

    // Of the site that is looked at, what lies at the end of chains that begin with one block.
    struct Share {
        MCCounter held;
        const KnownRoot *root; // null: one too many
    };

    static size_t bytes_for(size_t blocks) {
        constexpr size_t alignments = 64;
        return blocks * (sizeof(Share) + 2 * sizeof(uint32_t) + sizeof(uint8_t)) +
               most_sites() * sizeof(uint64_t) + most_roots * sizeof(KnownRoot) + alignments;
    }

    template <class Action> void each_held(Action action) const;
    template <class Action> void each_ranked(uint8_t rank, Action action) const;
    void find_firsts();
    void add_up_sites();
    uint8_t rank_sites();
    void rank_blocks();
    void look_at(uint8_t rank, HeldSite &held);
    void share_out(uint8_t rank);
    KnownRoot *root_of(const Origin &origin);
    KnownRoot *known_root(const Origin &origin, bool is_rough);
    void put_holders(HeldSite &held);
    void put_sample(uint8_t rank, HeldSite &held) const;
    void put_chain(uint32_t index, HeldSite &held) const;

    const Search &search_;
    const Moment &moment_;
    const uint32_t limit_;
    WorkMemory memory_;
    const std::span<uint32_t> firsts_; // by index, where the chain to a block begins
    const std::span<Share> shares_;    // by index
    const std::span<uint32_t> holding_;
    size_t holding_count_ = 0;
    const std::span<uint8_t>
        ranks_; // of its site, of each block in the order of reached_in_order; 0: none
    const std::span<uint64_t> totals_; // by number of a site, its bytes; then its rank
    const std::span<KnownRoot> roots_;
    size_t root_count_ = 0, inquiries_ = 0;
    const KnownRoot *first_holder_ = nullptr;
};

// Blocks and records lie anywhere, so all are looked at twice, and what has no rank never again.
template <class Action> void HolderSearch::each_held(Action action) const {
    size_t place = 0;
    for (const uint32_t index : search_.reached_in_order()) {
        const Record &record = record_at(search_.blocks()[index].number);
        if (is_reported(record) && record.age(gMCCycle) >= limit_)
            action(place, record);
        ++place;
    }
}

template <class Action> void HolderSearch::each_ranked(uint8_t rank, Action action) const {
    const std::span<const uint32_t> reached = search_.reached_in_order();
    for (size_t place = 0; place < reached.size(); ++place)
        if (ranks_[place] == rank)
            action(reached[place], record_at(search_.blocks()[reached[place]].number));
}

void HolderSearch::find_firsts() {
    for (const uint32_t index : search_.reached_in_order()) {
        const Origin &origin = search_.origin(index);
        firsts_[index] = origin.kind == Origin::Kind::block ? firsts_[origin.holder] : index;
    }
}

void HolderSearch::add_up_sites() {
    each_held([&](size_t, const Record &record) { totals_[record.site] += record.size; });
}

// Those of most bytes, from 1. Returns how many there are.
uint8_t HolderSearch::rank_sites() {
    uint32_t largest[HeldSites::most];
    const std::span sites = largest;
    size_t count = 0;
    for (uint32_t site = 0; site < totals_.size(); ++site) {
        if (totals_[site] == 0)
            continue;
        size_t at = count;
        for (; at > 0 && totals_[sites[at - 1]] < totals_[site]; --at)
            if (at < sites.size())
                sites[at] = sites[at - 1];
        if (at < sites.size())
            sites[at] = site;
        count = std::min(count + 1, sites.size());
    }
    std::ranges::fill(totals_, 0);
    for (size_t i = 0; i < count; ++i)
        totals_[sites[i]] = i + 1;
    return static_cast<uint8_t>(count);
}

void HolderSearch::rank_blocks() {
    each_held([&](size_t place, const Record &record) {
        ranks_[place] = static_cast<uint8_t>(totals_[record.site]);
    });
}

void HolderSearch::share_out(uint8_t rank) {
    holding_count_ = 0;
    each_ranked(rank, [&](uint32_t index, const Record &record) {
        Share &share = shares_[firsts_[index]];
        if (share.held.count == 0)
            holding_[holding_count_++] = firsts_[index];
        share.held.add(record.size);
    });
    std::sort(holding_.begin(), holding_.begin() + static_cast<ptrdiff_t>(holding_count_),
              [this](uint32_t a, uint32_t b) {
                  return std::pair(shares_[b].held.bytes, a) < std::pair(shares_[a].held.bytes, b);
              });
}

HolderSearch::KnownRoot *HolderSearch::known_root(const Origin &origin, bool is_rough) {
    for (KnownRoot &known : roots_.first(root_count_))
        if ((is_rough || known.root.kind == Root::Kind::variable) && known.root.is_around(origin))
            return &known;
    return nullptr;
}

// Null where it is one too many.
HolderSearch::KnownRoot *HolderSearch::root_of(const Origin &origin) {
    const bool is_rough = inquiries_ == most_inquiries || root_count_ == roots_.size();
    KnownRoot *const around = known_root(origin, is_rough);
    if (around != nullptr || is_rough)
        return around;
    ++inquiries_;
    KnownRoot &found = roots_[root_count_];
    describe_root(origin, moment_, found.root);
    for (KnownRoot &known : roots_.first(root_count_))
        if (known.root.is_as_good_as(found.root))
            return &known;
    ++root_count_;
    return &found;
}

void HolderSearch::put_holders(HeldSite &held) {
    KnownRoot *order[most_roots];
    size_t count = 0;
    for (KnownRoot &known : roots_.first(root_count_))
        if (known.held.count != 0)
            order[count++] = &known;
    std::sort(order, order + count, [](const KnownRoot *a, const KnownRoot *b) {
        return std::pair(b->held.bytes, a) < std::pair(a->held.bytes, b);
    });
    for (const KnownRoot *known : std::span(order, count)) {
        if (held.holder_count == HeldSite::most_holders) {
            held.others += known->held;
            continue;
        }
        Holder &holder = held.holders[held.holder_count++];
        known->root.put(holder.root, known->words > 1, "the reporting thread");
        holder.held = known->held;
    }
    first_holder_ = count != 0 ? order[0] : nullptr;
}

// Of the largest block that the first holder has; of the first that was reached of several.
void HolderSearch::put_sample(uint8_t rank, HeldSite &held) const {
    uint32_t sample = Block::none;
    size_t largest = 0;
    each_ranked(rank, [&](uint32_t index, const Record &record) {
        const bool is_candidate = shares_[firsts_[index]].root == first_holder_;
        if (is_candidate && (sample == Block::none || record.size > largest)) {
            sample = index;
            largest = record.size;
        }
    });
    if (first_holder_ != nullptr)
        put_chain(sample, held);
}

// Both ends of it.
void HolderSearch::put_chain(uint32_t index, HeldSite &held) const {
    constexpr size_t half = HeldSite::most_links / 2;
    size_t length = 0;
    follow_back(search_, index, [&](const Link &) { ++length; });
    held.left_out = length > HeldSite::most_links ? length - HeldSite::most_links : 0;
    held.link_count = static_cast<uint32_t>(length - held.left_out);
    size_t place = length;
    follow_back(search_, index, [&](const Link &link) {
        --place;
        if (place < half || held.left_out == 0)
            held.links[place] = link;
        else if (place >= half + held.left_out)
            held.links[place - held.left_out] = link;
    });
}

void HolderSearch::look_at(uint8_t rank, HeldSite &held) {
    for (KnownRoot &known : roots_.first(root_count_))
        known.held = {}, known.words = 0;
    share_out(rank);
    for (const uint32_t first : holding_.first(holding_count_)) {
        const Origin &origin = search_.origin(first);
        KnownRoot *const known = root_of(origin);
        shares_[first].root = known;
        if (known == nullptr) {
            held.others += shares_[first].held;
            continue;
        }
        if (known->words++ == 0)
            known->root.at = origin.at;
        known->held += shares_[first].held;
    }
    put_holders(held);
    put_sample(rank, held);
    for (const uint32_t first : holding_.first(holding_count_))
        shares_[first] = {};
}

void HolderSearch::run(HeldSites &held) {
    if (!memory_)
        return;
    find_firsts();
    add_up_sites();
    const uint8_t count = rank_sites();
    rank_blocks();
    for (uint8_t rank = 1; rank <= count; ++rank)
        look_at(rank, held.sites[held.count++]);
}

} // namespace

void find_holders(const Search &search, const Moment &moment, uint32_t limit, HeldSites &held) {
    constexpr size_t enough = 24 << 10; // for the paths and symbols of what has a name
    if (platform::has_stack_room(enough))
        HolderSearch(search, moment, limit).run(held);
}

} // namespace k42mc::internal
