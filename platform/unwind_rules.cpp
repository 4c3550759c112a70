#include "platform/unwind_rules.h"

#include "platform/cfi.h"
#include "platform/dwarf.h"
#include "platform/startup_modules.h"

namespace k42mc::internal::platform {

constinit UnwindRuleSlot gUnwindRules[(1 << rule_slot_bits) + most_probes] = {};

namespace {

using How = RegisterRule::How;

bool in_words(intptr_t bytes, int most, int &words) {
    words = static_cast<int>(bytes / word);
    return bytes % word == 0 && bytes / word >= -most && bytes / word <= most;
}

// Whether the expression is the frame pointer plus an offset, and what is in memory there if `loaded`.
bool is_frame_pointer_plus(const FrameInfo &info, intptr_t expression, bool loaded, intptr_t &offset) {
    constexpr uint8_t DW_OP_breg_frame_pointer = 0x70 + Registers::fp, DW_OP_deref = 0x06;
    dwarf::Reader reader(static_cast<uintptr_t>(expression), info.module_end);
    const uintptr_t length = reader.uleb128();
    reader.end_at(reader.position() + length);
    if (reader.byte() != DW_OP_breg_frame_pointer)
        return false;
    offset = reader.sleb128();
    return (!loaded || reader.byte() == DW_OP_deref) && reader.at_end() && length > 0;
}

UnwindRule::Kind kind_of(const FrameInfo &info, const FrameRules &rules, intptr_t &distance) {
    distance = rules.address_offset;
    if (rules.address_by_expression)
        return is_frame_pointer_plus(info, rules.address_expression, true, distance)
                   ? UnwindRule::at_frame_pointer
                   : UnwindRule::unusual;
    if (rules.address_register == Registers::sp)
        return UnwindRule::from_stack_pointer;
    if (rules.address_register == Registers::fp)
        return UnwindRule::from_frame_pointer;
    return UnwindRule::unusual;
}

// Where the caller's frame pointer is saved, relative to what a rule of this kind starts from.
bool save_of(const FrameInfo &info, const RegisterRule &rule, UnwindRule::Kind kind, intptr_t &save) {
    if (kind == UnwindRule::at_frame_pointer)
        return rule.how == How::at_expression && is_frame_pointer_plus(info, rule.value, false, save);
    save = rule.value;
    return rule.how == How::at_offset;
}

UnwindRule shorten(const FrameInfo &info, const FrameRules &rules) {
    const UnwindRule unusual = UnwindRule::of(UnwindRule::unusual);
    const RegisterRule &called_from = rules.registers[Registers::ra],
                       &pointer = rules.registers[Registers::fp];
    if (info.is_signal_frame || info.return_column != Registers::ra)
        return unusual;
    if (called_from.how == How::undefined)
        return UnwindRule::of(UnwindRule::outermost);
    if (called_from.how != How::at_offset || called_from.value != -word ||
        rules.registers[Registers::sp].how != How::same)
        return unusual;
    intptr_t distance, save;
    int distance_words, save_words;
    const UnwindRule::Kind kind = kind_of(info, rules, distance);
    if (kind == UnwindRule::unusual || !in_words(distance, UnwindRule::most_distance, distance_words))
        return unusual;
    const UnwindRule rule = UnwindRule::of(kind, distance);
    if (pointer.how == How::same)
        return rule;
    if (!save_of(info, pointer, kind, save) || !in_words(save, UnwindRule::most_save, save_words))
        return unusual;
    return rule.saving_at(save_words);
}

void keep(uintptr_t address, UnwindRule rule) {
    UnwindRuleSlot *slot = &gUnwindRules[first_slot(address)];
    for (int probe = 0; probe < most_probes; ++probe, ++slot) {
        uintptr_t free = 0;
        if (slot->address.compare_exchange_strong(free, UnwindRuleSlot::claimed,
                                                  std::memory_order_relaxed)) {
            slot->rule = rule;
            slot->address.store(address, std::memory_order_release);
            return;
        }
    }
}

} // namespace

UnwindRule learn_rule(uintptr_t called_from) {
    // A call may be the last thing that a function does: its return address lies behind.
    const uintptr_t call = called_from - 1;
    FrameTable table;
    uint32_t index;
    UnwindRule rule = UnwindRule::of(UnwindRule::outermost);
    if (!find_frame_table(call, table) || !find_frame_entry(table, call, index))
        return rule;
    FrameInfo info;
    FrameRules rules;
    if (read_frame_info(table, index, call, info) && rules_at(info, call, rules))
        rule = shorten(info, rules);
    rule.module = is_startup_module(table.module) ? staying_module : number_unloadable_module(table);
    if (rule.module != unknown_module)
        keep(called_from, rule);
    return rule;
}

} // namespace k42mc::internal::platform
