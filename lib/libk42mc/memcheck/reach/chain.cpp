#include "memcheck/reach/chain.h"

namespace k42mc::internal {
void find_chain(const Search &search, const Moment &moment, uintptr_t address, Chain &chain) {
    const uint32_t index = search.blocks().find(address);
    chain.is_recorded = index != Block::none;
    chain.is_held = chain.is_recorded && search.is_reached(index);
    if (chain.is_held) {
        Root root;
        const Origin &origin =
            follow_back(search, index, [&](const Link &link) { chain.links[chain.count++] = link; });
        std::reverse(chain.links, chain.links + chain.count);
        describe_root(origin, moment, root);
        root.put(chain.root, false, "this thread");
    } else if (chain.is_recorded) {
        const Block &block = search.blocks()[index];
        chain.links[chain.count++] = {record_at(block.number).order(), block.number, 0};
    }
    chain.is_complete = true;
}

} // namespace k42mc::internal
