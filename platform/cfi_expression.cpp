#include "platform/cfi_expression.h"

#include "platform/dwarf.h"
namespace k42mc::internal::platform {
namespace {

using dwarf::Reader;

enum : uint8_t {
    DW_OP_deref = 0x06,
    DW_OP_const1u = 0x08,
    DW_OP_const1s = 0x09,
    DW_OP_const2u = 0x0a,
    DW_OP_const2s = 0x0b,
    DW_OP_const4u = 0x0c,
    DW_OP_const4s = 0x0d,
    DW_OP_constu = 0x10,
    DW_OP_consts = 0x11,
    DW_OP_dup = 0x12,
    DW_OP_drop = 0x13,
    DW_OP_swap = 0x16,
    DW_OP_and = 0x1a,
    DW_OP_minus = 0x1c,
    DW_OP_mul = 0x1e,
    DW_OP_neg = 0x1f,
    DW_OP_or = 0x21,
    DW_OP_plus = 0x22,
    DW_OP_plus_uconst = 0x23,
    DW_OP_shl = 0x24,
    DW_OP_shr = 0x25,
    DW_OP_eq = 0x29,
    DW_OP_ge = 0x2a,
    DW_OP_gt = 0x2b,
    DW_OP_le = 0x2c,
    DW_OP_lt = 0x2d,
    DW_OP_ne = 0x2e,
    DW_OP_lit0 = 0x30,
    DW_OP_lit31 = 0x4f,
    DW_OP_breg0 = 0x70,
    DW_OP_breg31 = 0x8f,
    DW_OP_nop = 0x96,
};

class Machine {
public:
    Machine(const Registers &its_registers, const Stack &its_memory)
        : registers(its_registers), memory(its_memory) {}

    void push(uintptr_t value) {
        if (depth < most)
            values[depth++] = value;
        else
            failed = true;
    }

    uintptr_t pop() {
        if (depth > 0)
            return values[--depth];
        failed = true;
        return 0;
    }

    bool step(Reader &reader) {
        const uint8_t operation = reader.byte();
        if (operation >= DW_OP_lit0 && operation <= DW_OP_lit31)
            push(operation - DW_OP_lit0);
        else if (operation >= DW_OP_breg0 && operation <= DW_OP_breg31)
            push_register(operation - DW_OP_breg0, reader.sleb128());
        else if (!push_constant(operation, reader) && !rearrange(operation, reader))
            calculate(operation);
        return !failed;
    }

private:
    static constexpr int most = 8;

    void push_signed(intptr_t value) { push(static_cast<uintptr_t>(value)); }

    void push_register(int number, intptr_t offset) {
        if (number < Registers::count)
            push(registers[number] + static_cast<uintptr_t>(offset));
        else
            failed = true;
    }

    bool push_constant(uint8_t operation, Reader &reader) {
        switch (operation) {
        case DW_OP_const1u:
            push(reader.byte());
            return true;
        case DW_OP_const1s:
            push_signed(reader.read<int8_t>());
            return true;
        case DW_OP_const2u:
            push(reader.read<uint16_t>());
            return true;
        case DW_OP_const2s:
            push_signed(reader.read<int16_t>());
            return true;
        case DW_OP_const4u:
            push(reader.read<uint32_t>());
            return true;
        case DW_OP_const4s:
            push_signed(reader.read<int32_t>());
            return true;
        case DW_OP_constu:
            push(reader.uleb128());
            return true;
        case DW_OP_consts:
            push_signed(reader.sleb128());
            return true;
        default:
            return false;
        }
    }

    bool rearrange(uint8_t operation, Reader &reader) {
        uintptr_t a, b;
        switch (operation) {
        case DW_OP_nop:
            return true;
        case DW_OP_drop:
            pop();
            return true;
        case DW_OP_dup:
            a = pop();
            push(a);
            push(a);
            return true;
        case DW_OP_swap:
            b = pop();
            a = pop();
            push(b);
            push(a);
            return true;
        case DW_OP_deref:
            a = pop();
            failed = failed || !memory.holds(a);
            push(failed ? 0 : load(a));
            return true;
        case DW_OP_neg:
            push(-pop());
            return true;
        case DW_OP_plus_uconst:
            push(pop() + reader.uleb128());
            return true;
        default:
            return false;
        }
    }

    void calculate(uint8_t operation) {
        const uintptr_t b = pop(), a = pop();
        const auto signed_b = static_cast<intptr_t>(b), signed_a = static_cast<intptr_t>(a);
        constexpr uintptr_t bits = 8 * sizeof a;
        switch (operation) {
        case DW_OP_and:
            return push(a & b);
        case DW_OP_or:
            return push(a | b);
        case DW_OP_plus:
            return push(a + b);
        case DW_OP_minus:
            return push(a - b);
        case DW_OP_mul:
            return push(a * b);
        case DW_OP_shl:
            return push(b < bits ? a << b : 0);
        case DW_OP_shr:
            return push(b < bits ? a >> b : 0);
        case DW_OP_eq:
            return push(a == b);
        case DW_OP_ne:
            return push(a != b);
        case DW_OP_ge:
            return push(signed_a >= signed_b);
        case DW_OP_gt:
            return push(signed_a > signed_b);
        case DW_OP_le:
            return push(signed_a <= signed_b);
        case DW_OP_lt:
            return push(signed_a < signed_b);
        default:
            failed = true;
        }
    }

    const Registers &registers;
    const Stack &memory;
    uintptr_t values[most] = {};
    int depth = 0;
    bool failed = false;
};

} // namespace

bool evaluate(const FrameInfo &info, intptr_t expression, const Registers &registers, const Stack &stack,
              const uintptr_t *frame_address, uintptr_t &result) {
    Reader reader(static_cast<uintptr_t>(expression), info.module_end);
    const uintptr_t length = reader.uleb128();
    reader.end_at(reader.position() + length);
    Machine machine(registers, stack);
    if (frame_address)
        machine.push(*frame_address);
    while (!reader.at_end())
        if (!machine.step(reader))
            return false;
    result = machine.pop();
    return result != 0;
}

} // namespace k42mc::internal::platform
