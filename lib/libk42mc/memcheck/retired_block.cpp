#include "memcheck/retired_block.h"

#include "platform/platform.h"

#include <algorithm>
#include <string.h>

namespace k42mc::internal {
namespace {

// Up to here, filling all takes less time than giving pages back.
constexpr size_t largest_filled = 32 << 10;

constexpr size_t filled_at_ends = 4 << 10;

// The whole pages between the ends of a large block; none of others.
std::span<char> middle_of(const RetiredBlock &block) {
    if (block.size <= largest_filled)
        return {};
    const uintptr_t page = platform::page_size();
    const auto user = reinterpret_cast<uintptr_t>(block.user);
    const uintptr_t begin = (user + filled_at_ends + page - 1) & -page;
    const uintptr_t end = (user + block.size - filled_at_ends) & -page;
    if (begin >= end)
        return {};
    return {static_cast<char *>(block.user) + (begin - user), end - begin};
}

std::span<char> user_bytes(const RetiredBlock &block) {
    return {static_cast<char *>(block.user), block.size};
}

std::span<char> ahead_of(std::span<char> middle, std::span<char> all) {
    return middle.empty() ? all : all.first(static_cast<size_t>(middle.data() - all.data()));
}

std::span<char> behind(std::span<char> middle, std::span<char> all) {
    return middle.empty() ? all.last(0)
                          : all.subspan(static_cast<size_t>(middle.data() - all.data()) + middle.size());
}

void fill(std::span<char> bytes) {
    memset(bytes.data(), retired_byte, bytes.size());
}

// All are as the first one is, if each is as the one ahead of it.
bool is_filled(std::span<const char> bytes) {
    return bytes.empty() || (static_cast<unsigned char>(bytes.front()) == retired_byte &&
                             memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

bool has_change(std::span<const char> bytes, const RetiredBlock &block, ptrdiff_t &change) {
    if (is_filled(bytes)) [[likely]]
        return false;
    const auto differs = [](char byte) { return static_cast<unsigned char>(byte) != retired_byte; };
    change = &*std::ranges::find_if(bytes, differs) - static_cast<const char *>(block.user);
    return true;
}

} // namespace

void fill_retired(const RetiredBlock &block) {
    const std::span<char> middle = middle_of(block), all = user_bytes(block);
    fill(ahead_of(middle, all));
    fill(behind(middle, all));
    // Pointers that were left there must not hold anything.
    if (!middle.empty() && !platform::discard(middle.data(), middle.size()))
        fill(middle);
}

bool is_changed(const RetiredBlock &block, ptrdiff_t &change) {
    const std::span<char> middle = middle_of(block), all = user_bytes(block);
    const auto *const user = static_cast<const char *>(block.user);
    const bool has_guards = has_freed_guards(block.arena, user, block.size, change);
    if (!has_guards && change < 0)
        return true;
    return has_change(ahead_of(middle, all), block, change) ||
           has_change(behind(middle, all), block, change) || !has_guards;
}

bool is_changed(const RetiredBlock &block, ptrdiff_t &change, GuardInspector &inspector) {
    const auto raw = reinterpret_cast<uintptr_t>(block.raw);
    return inspector.readable(raw, block.raw_size) && is_changed(block, change);
}

} // namespace k42mc::internal
