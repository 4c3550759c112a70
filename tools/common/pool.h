// Values that are kept once, however often they occur.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

// Rows of T, numbered from 0 in the order of their first occurrence. Equal rows have one number and one
// address, which stays.
template <class T> class Pool {
    static_assert(std::has_unique_object_representations_v<T>, "rows are compared byte by byte");

public:
    uint32_t number_of(std::span<const T> row) {
        if (rows_.size() >= slots_.size() / 4 * 3)
            grow();
        Slot &slot = slot_of(row, hash_of(row));
        if (slot.number == none) {
            slot = {hash_of(row), static_cast<uint32_t>(rows_.size())};
            rows_.push_back(keep(row));
        }
        return slot.number;
    }

    std::span<const T> operator[](uint32_t number) const { return rows_[number]; }

    size_t size() const { return rows_.size(); }

private:
    static constexpr uint32_t none = UINT32_MAX;

    struct Slot {
        uint32_t hash = 0;
        uint32_t number = none;
    };

    static uint32_t hash_of(std::span<const T> row) {
        const std::string_view bytes(reinterpret_cast<const char *>(row.data()), row.size_bytes());
        return static_cast<uint32_t>(std::hash<std::string_view>()(bytes));
    }

    bool is_row(const Slot &slot, std::span<const T> row, uint32_t hash) const {
        if (slot.hash != hash)
            return false;
        const std::span<const T> known = rows_[slot.number];
        return known.size() == row.size() &&
               (row.empty() || std::memcmp(known.data(), row.data(), row.size_bytes()) == 0);
    }

    // The slot that has the row, or the free one for it.
    Slot &slot_of(std::span<const T> row, uint32_t hash) {
        size_t at = hash % slots_.size();
        while (slots_[at].number != none && !is_row(slots_[at], row, hash))
            at = (at + 1) % slots_.size();
        return slots_[at];
    }

    void grow() {
        std::vector<Slot> old(std::max<size_t>(slots_.size() * 2, 64));
        old.swap(slots_);
        for (const Slot &slot : old) {
            if (slot.number == none)
                continue;
            size_t at = slot.hash % slots_.size();
            while (slots_[at].number != none)
                at = (at + 1) % slots_.size();
            slots_[at] = slot;
        }
    }

    std::span<const T> keep(std::span<const T> row) {
        constexpr size_t block_size = std::max<size_t>(1, 65536 / sizeof(T));
        if (row.size() > room_) {
            room_ = std::max(block_size, row.size());
            blocks_.push_back(std::make_unique_for_overwrite<T[]>(room_));
            next_ = blocks_.back().get();
        }
        T *const first = std::ranges::copy(row, next_).out - row.size();
        next_ += row.size();
        room_ -= row.size();
        return {first, row.size()};
    }

    std::deque<std::span<const T>> rows_;
    std::vector<Slot> slots_;
    std::vector<std::unique_ptr<T[]>> blocks_;
    T *next_ = nullptr; // in the last block
    size_t room_ = 0;
};
