#include "memcheck/reach/search.h"

#include "platform/signal_context.h"

namespace k42mc::internal {

size_t Search::bytes_for(const Moment &moment) {
    constexpr size_t alignments = 64;
    return BlockMap::bytes_for(moment.block_count) + Roots::bytes_for(moment) +
           moment.block_count * (sizeof(bool) + sizeof(uint32_t)) + pages_at_a_time * sizeof(uint64_t) +
           most_words * word + alignments;
}

Search::Search(const Moment &moment)
    : moment_(moment), memory_(bytes_for(moment)), pages_(memory_.take<uint64_t>(pages_at_a_time)),
      blocks_(memory_, moment.block_count), roots_(memory_, moment, blocks_, copies_),
      reached_(memory_.take<bool>(moment.block_count)),
      queue_(memory_.take<uint32_t>(moment.block_count)), words_(memory_.take<uintptr_t>(most_words)) {}

bool Search::run() {
    if (!memory_ || !copies_)
        return false;
    for (uint32_t i = 0; i < blocks_.size(); ++i)
        if (const Record &record = record_at(blocks_[i].number);
            record.is_kept() || record.is_in_hand()) // which somebody is moving
            reach(i);
    reach_from_threads();
    auto visit = [this](Range range, const platform::Mapping &mapping) { reach_from(range, mapping); };
    if (!roots_.each(visit))
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
void Search::reach(uint32_t index) {
    for (; index != Block::none && !reached_[index]; index = blocks_[index].outer) {
        reached_[index] = true;
        queue_[queued_++] = index;
    }
}

void Search::reach_from(Range range) {
    for (uint32_t index; (index = next_pointer(range.begin, range.end)) != Block::none;)
        reach(index);
}

void Search::reach_from(Range range, const platform::Mapping &mapping) {
    for (uintptr_t at = range.begin; at < range.end;) {
        const uintptr_t end = std::min((at & -smallest_page) + smallest_page, range.end);
        if (pages_.is_own(at, mapping))
            reach_from({at, end});
        at = end;
    }
}

void Search::reach_from_threads() {
    for (const uintptr_t value : moment_.caller.registers.values)
        reach(blocks_.find(value));
    for (const platform::StoppedThread &thread : moment_.threads) {
        if (thread.context == nullptr)
            continue;
        const platform::SavedRegisters saved = platform::saved_registers(thread.context);
        reach_from({saved.begin, saved.end});
        reach_from({saved.vectors_begin, saved.vectors_end});
    }
}

void Search::reach_from_blocks() {
    for (; next_ < queued_; ++next_) {
        const Block &block = blocks_[queue_[next_]];
        reach_from({block.begin, block.end});
    }
}

} // namespace k42mc::internal
