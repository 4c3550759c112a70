#include "platform/full_walk.h"

#include "platform/cfi.h"
#include "platform/cfi_expression.h"
#include "platform/platform.h"
#include "platform/signal_context.h"
#include "platform/stack.h"

namespace k42mc::internal::platform {
namespace {

using How = RegisterRule::How;

class Walk {
public:
    explicit Walk(const Registers &start) : registers(start), stack(stack_of(start[Registers::sp])) {}

    uintptr_t return_address() const { return registers[Registers::ra]; }
    const Registers &at() const { return registers; }
    uintptr_t stack_pointer() const { return registers[Registers::sp]; }
    uintptr_t place() const { return return_address() + was_interrupted; }

    // Goes to the caller. Returns false where there is none, or it cannot be told.
    bool step() {
        FrameInfo info;
        FrameRules rules;
        uintptr_t cfa;
        const uintptr_t pc = return_address() - !was_interrupted;
        if (!find_frame_info(pc, info) || !rules_at(info, pc, rules) || !find_address(info, rules, cfa))
            return false;
        // Callers lie higher, or the stack is damaged; only a signal handler may run on another one.
        if (cfa <= registers[Registers::sp] && !info.is_signal_frame)
            return false;
        Registers caller = registers;
        caller[Registers::sp] = cfa;
        caller[Registers::ra] = 0;
        for (int number = 0; number < Registers::count; ++number)
            if (!restore(info, rules.registers[number], cfa, number, caller[number]))
                return false;
        // The return address is wherever the entry says; everybody says it is this.
        if (info.return_column != Registers::ra || caller[Registers::ra] == 0)
            return false;
        was_interrupted = info.is_signal_frame;
        registers = caller;
        if (was_interrupted)
            stack = stack_of(registers[Registers::sp]);
        return true;
    }

private:
    bool find_address(const FrameInfo &info, const FrameRules &rules, uintptr_t &result) const {
        if (rules.address_by_expression)
            return evaluate(info, rules.address_expression, registers, stack, nullptr, result);
        if (rules.address_register < 0 || rules.address_register >= Registers::count)
            return false;
        result = registers[rules.address_register] + static_cast<uintptr_t>(rules.address_offset);
        return true;
    }

    bool load_checked(uintptr_t address, uintptr_t &value) const {
        if (!stack.holds(address))
            return false;
        value = load(address);
        return true;
    }

    bool restore(const FrameInfo &info, const RegisterRule &rule, uintptr_t cfa, int number,
                 uintptr_t &value) const {
        const uintptr_t offset = static_cast<uintptr_t>(rule.value);
        uintptr_t address;
        switch (rule.how) {
        case How::same:
            return true;
        case How::undefined:
            return number != Registers::ra;
        case How::at_offset:
            return load_checked(cfa + offset, value);
        case How::is_offset:
            value = cfa + offset;
            return true;
        case How::at_expression:
            return evaluate(info, rule.value, registers, stack, &cfa, address) &&
                   load_checked(address, value);
        case How::is_expression:
            return evaluate(info, rule.value, registers, stack, &cfa, value);
        case How::in_register:
            if (offset >= Registers::count)
                return false;
            value = registers[static_cast<int>(offset)];
            return true;
        }
        return false;
    }

    Registers registers;
    Stack stack;
    bool was_interrupted = true; // that is an instruction to come, not a return address
};

} // namespace

[[gnu::noinline]] void full_walk(TraceBuffer &trace) {
    Registers start = {};
    capture(start);
    Walk walk(start);
    while (trace.room() > 0 && walk.step())
        trace.add(walk.return_address());
}

int backtrace_of_interrupted(const void *context, void **frames, int most) {
    TraceBuffer trace(frames, most);
    Walk walk(registers_of(context));
    trace.add(walk.place());
    while (trace.room() > 0 && walk.step())
        trace.add(walk.return_address());
    return most - trace.room();
}

bool step_out(Registers &registers) {
    Walk walk(registers);
    if (!walk.step())
        return false;
    registers = walk.at();
    return true;
}

FrameSearch find_frame(const Registers &start, uintptr_t address) {
    // A signal frame may lead down again, on a damaged stack in circles.
    constexpr int most_frames = 100'000;
    Walk walk(start);
    uintptr_t begin = 0;
    for (int i = 0; i < most_frames; ++i) {
        const uintptr_t place = walk.place();
        begin = walk.stack_pointer();
        if (!walk.step())
            break;
        if (address >= begin && address < walk.stack_pointer())
            return {place, walk.stack_pointer()};
    }
    return {0, begin};
}

} // namespace k42mc::internal::platform
