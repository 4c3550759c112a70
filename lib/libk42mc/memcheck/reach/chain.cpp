#include "memcheck/reach/chain.h"

#include "platform/full_walk.h"
#include "platform/signal_context.h"
#include "platform/stack.h"

namespace k42mc::internal {
namespace {

struct Thread {
    uint32_t number;
    uintptr_t control_block;
    platform::Registers registers;
};

platform::Mapping mapping_at(uintptr_t address) {
    platform::MemoryMap map;
    for (platform::Mapping mapping; map.next(mapping);)
        if (address >= mapping.begin && address < mapping.end)
            return mapping;
    return {};
}

// With thread-local memory of the modules that were there at the start.
bool is_beside_control_block(uintptr_t at, uintptr_t control_block) {
    constexpr uintptr_t control_block_bytes = 2048;
    const uintptr_t below = platform::thread_local_bytes();
    return at - (control_block - below) < below + control_block_bytes;
}

// Whether the pointer lies in the thread's memory.
bool describe(Root &root, const platform::Mapping &mapping, const Thread &thread) {
    const platform::StackMemory stack = platform::stack_memory_of(thread.control_block);
    const bool is_first = stack.end == 0;
    root.thread = thread.number;
    const bool is_beside = is_beside_control_block(root.at, thread.control_block);
    if (is_first && is_beside && thread.control_block - mapping.begin < mapping.end - mapping.begin) {
        root.kind = Root::Kind::thread_local_memory;
        return true;
    }
    if (is_first ? !mapping.is_first_stack : root.at < stack.begin || root.at >= stack.end)
        return false;
    const platform::FrameSearch found = platform::find_frame(thread.registers, root.at);
    root.frame = found.place;
    root.kind = !is_first && is_beside && found.place == 0 && root.at >= found.walked_to
                    ? Root::Kind::thread_local_memory
                    : Root::Kind::stack;
    return true;
}

void describe_memory(Root &root, const Moment &moment) {
    root.kind = Root::Kind::memory;
    if (root.at - moment.handed.begin < moment.handed.end - moment.handed.begin) {
        root.kind = Root::Kind::handed;
        return;
    }
    const platform::Mapping mapping = mapping_at(root.at);
    root.mapping_bytes = mapping.end - mapping.begin;
    if (describe(root, mapping, {0, moment.caller.control_block, moment.caller.registers}))
        return;
    for (const platform::StoppedThread &thread : moment.threads)
        if (thread.context != nullptr &&
            describe(root, mapping,
                     {thread.id, thread.control_block, platform::registers_of(thread.context)}))
            return;
}

Root describe_root(const Origin &origin, const Moment &moment) {
    Root root = {};
    root.at = origin.at;
    switch (origin.kind) {
    case Origin::Kind::kept:
        root.kind = Root::Kind::kept;
        break;
    case Origin::Kind::moving:
        root.kind = Root::Kind::moving;
        break;
    case Origin::Kind::caller:
        root.kind = Root::Kind::one_register;
        root.register_name = platform::register_name(static_cast<int>(origin.at));
        break;
    case Origin::Kind::thread: {
        const platform::StoppedThread &thread = moment.threads[origin.holder];
        root.kind = Root::Kind::one_register;
        root.thread = thread.id;
        root.register_name = platform::saved_register_name(thread.context, origin.at);
        break;
    }
    case Origin::Kind::memory:
    case Origin::Kind::block:
        describe_memory(root, moment);
        break;
    }
    return root;
}

// Returns where the chain begins.
const Origin &put_links(const Search &search, uint32_t index, Chain &chain) {
    const BlockMap &blocks = search.blocks();
    uintptr_t offset = 0;
    for (;; index = search.origin(index).holder) {
        const Block &block = blocks[index];
        chain.links[chain.count++] = {record_at(block.number).order(), block.number, offset};
        const Origin &origin = search.origin(index);
        if (origin.kind != Origin::Kind::block) {
            std::reverse(chain.links, chain.links + chain.count);
            return origin;
        }
        offset = origin.at - blocks[origin.holder].begin;
    }
}

} // namespace

void find_chain(const Search &search, const Moment &moment, uintptr_t address, Chain &chain) {
    const uint32_t index = search.blocks().find(address);
    chain.is_recorded = index != Block::none;
    chain.is_held = chain.is_recorded && search.is_reached(index);
    if (chain.is_held) {
        chain.root = describe_root(put_links(search, index, chain), moment);
    } else if (chain.is_recorded) {
        const Block &block = search.blocks()[index];
        chain.links[chain.count++] = {record_at(block.number).order(), block.number, 0};
    }
    chain.is_complete = true;
}

} // namespace k42mc::internal
