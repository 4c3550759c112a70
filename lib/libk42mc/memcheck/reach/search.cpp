#include "memcheck/reach/search.h"

#include "memcheck/inheritance.h"
#include "memcheck/registry.h"
#include "platform/prefetch.h"
#include "platform/signal_context.h"

namespace k42mc::internal {

size_t Search::bytes_for(const Moment &moment, Note note) {
    constexpr size_t alignments = 64;
    const size_t noted = note == Note::nothing ? 0 : moment.block_count * sizeof(Origin);
    return BlockMap::bytes_for(moment.block_count) + Roots::bytes_for(moment) +
           moment.block_count * (sizeof(bool) + sizeof(uint32_t)) + pages_at_a_time * sizeof(uint64_t) +
           windows_of_pages * sizeof(platform::SharedPages::Window) + most_words * word + noted +
           alignments;
}

Search::Search(const Moment &moment, Note note)
    : moment_(moment), callers_last_(note == Note::origins_callers_last),
      as_heir_(note == Note::nothing && moment.threads.empty() && is_heir()),
      memory_(bytes_for(moment, note)), pages_(memory_.take<uint64_t>(pages_at_a_time)),
      inherited_(memory_.take<platform::SharedPages::Window>(as_heir_ ? windows_of_pages : 0)),
      blocks_(memory_, moment.block_count), roots_(memory_, moment, blocks_, copies_, inherited_),
      reached_(memory_.take<bool>(moment.block_count)),
      origins_(memory_.take<Origin>(note == Note::nothing ? 0 : moment.block_count)),
      queue_(memory_.take<uint32_t>(moment.block_count)), words_(memory_.take<uintptr_t>(most_words)),
      callers_stack_(platform::stack_memory_of(moment.caller.control_block)) {
    if (callers_stack_.end != 0)
        callers_stack_.end = moment.caller.control_block & -smallest_page;
}

bool Search::run() {
    if (!memory_ || !copies_)
        return false;
    for (uint32_t i = 0; i < blocks_.size(); ++i) {
        const Record &record = record_at(blocks_[i].number);
        if (record.is_kept())
            reach(i, {Origin::Kind::kept, 0, 0});
        else if (record.is_in_hand()) // somebody is moving it
            reach(i, {Origin::Kind::moving, 0, 0});
        else if (as_heir_ && is_parents(record))
            reach(i, {Origin::Kind::inherited, 0, 0});
    }
    bool callers_own = false;
    auto visit = [&](Range range, const platform::Mapping &mapping) {
        reach_from(range, mapping, callers_own);
    };
    reach_from_threads();
    if (!roots_.each(visit))
        return false;
    reach_from_blocks();
    callers_own = true;
    reach_from_caller();
    if (callers_last_ && !roots_.each(visit))
        return false;
    reach_from_blocks();
    return true;
}

// To the end of the page. One that cannot be read has nothing in it.
void Search::fill_window(uintptr_t at, uintptr_t end) {
    window_ = {at, std::min((at & -smallest_page) + smallest_page, end) & -word};
    if (!copies_.copy(at, words_.data(), window_.end - at))
        std::ranges::fill(words_, 0);
}

uint32_t Search::next_pointer(uintptr_t &at, uintptr_t end) {
    for (at = (at + word - 1) & -word; at + word <= end; at += word) {
        if (at < window_.begin || at >= window_.end)
            fill_window(at, end);
        const uint32_t index = blocks_.find(words_[(at - window_.begin) / word]);
        if (index != Block::none) {
            at += word;
            return index;
        }
    }
    return Block::none;
}

// With a block, all that it lies in.
void Search::reach(uint32_t index, const Origin &origin) {
    for (; index != Block::none && !reached_[index]; index = blocks_[index].outer) {
        reached_[index] = true;
        if (!origins_.empty())
            origins_[index] = origin;
        queue_[queued_++] = index;
    }
}

void Search::reach_from(Range range, Origin::Kind kind, uint32_t holder) {
    for (uint32_t index; (index = next_pointer(range.begin, range.end)) != Block::none;)
        reach(index, {kind, holder, range.begin - word});
}

bool Search::is_callers_own(uintptr_t at, const platform::Mapping &mapping) const {
    const platform::StackMemory &stack = callers_stack_;
    return stack.end == 0 ? mapping.is_first_stack : at >= stack.begin && at < stack.end;
}

void Search::reach_from(Range range, const platform::Mapping &mapping, bool callers_own) {
    for (uintptr_t at = range.begin; at < range.end;) {
        const uintptr_t end = std::min((at & -smallest_page) + smallest_page, range.end);
        const bool is_turn = !callers_last_ || is_callers_own(at, mapping) == callers_own;
        if (is_turn && pages_.is_own(at, mapping) && !(as_heir_ && inherited_.has(at)))
            reach_from({at, end}, Origin::Kind::memory, 0);
        at = end;
    }
}

void Search::reach_from_caller() {
    for (int number = 0; number < platform::Registers::count; ++number)
        reach(blocks_.find(moment_.caller.registers[number]),
              {Origin::Kind::caller, 0, static_cast<uintptr_t>(number)});
}

void Search::reach_from_threads() {
    for (uint32_t i = 0; i < moment_.threads.size(); ++i) {
        if (moment_.threads[i].context == nullptr)
            continue;
        const platform::SavedRegisters saved = platform::saved_registers(moment_.threads[i].context);
        reach_from({saved.begin, saved.end}, Origin::Kind::thread, i);
        reach_from({saved.vectors_begin, saved.vectors_end}, Origin::Kind::thread, i);
    }
}

void Search::reach_from_block(uint32_t index) {
    const Block &block = blocks_[index];
    for (uintptr_t at = block.begin; at < block.end;) {
        const uintptr_t end =
            as_heir_ ? std::min((at & -smallest_page) + smallest_page, block.end) : block.end;
        if (!as_heir_ || !inherited_.has(at))
            reach_from({at, end}, Origin::Kind::block, index);
        at = end;
    }
}

// Those that will be looked into soon, which lie anywhere.
void Search::prefetch_ahead() const {
    constexpr uint32_t ahead = 8;
    if (next_ + 2 * ahead < queued_)
        platform::prefetch(reinterpret_cast<uintptr_t>(&blocks_[queue_[next_ + 2 * ahead]]));
    if (next_ + ahead < queued_)
        platform::prefetch(blocks_[queue_[next_ + ahead]].begin);
}

void Search::reach_from_blocks() {
    for (; next_ < queued_; ++next_) {
        prefetch_ahead();
        reach_from_block(queue_[next_]);
    }
}

} // namespace k42mc::internal
