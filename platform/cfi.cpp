#include "platform/cfi.h"

#include "platform/dwarf.h"
namespace k42mc::internal::platform {
namespace {

using dwarf::Reader;
using How = RegisterRule::How;

enum : uint8_t {
    // In the two high bits, with an operand in the others.
    DW_CFA_advance_loc = 0x40,
    DW_CFA_offset = 0x80,
    DW_CFA_restore = 0xc0,

    DW_CFA_nop = 0x00,
    DW_CFA_set_loc = 0x01,
    DW_CFA_advance_loc1 = 0x02,
    DW_CFA_advance_loc2 = 0x03,
    DW_CFA_advance_loc4 = 0x04,
    DW_CFA_offset_extended = 0x05,
    DW_CFA_restore_extended = 0x06,
    DW_CFA_undefined = 0x07,
    DW_CFA_same_value = 0x08,
    DW_CFA_register = 0x09,
    DW_CFA_remember_state = 0x0a,
    DW_CFA_restore_state = 0x0b,
    DW_CFA_def_cfa = 0x0c,
    DW_CFA_def_cfa_register = 0x0d,
    DW_CFA_def_cfa_offset = 0x0e,
    DW_CFA_def_cfa_expression = 0x0f,
    DW_CFA_expression = 0x10,
    DW_CFA_offset_extended_sf = 0x11,
    DW_CFA_def_cfa_sf = 0x12,
    DW_CFA_def_cfa_offset_sf = 0x13,
    DW_CFA_val_offset = 0x14,
    DW_CFA_val_offset_sf = 0x15,
    DW_CFA_val_expression = 0x16,
    DW_CFA_GNU_args_size = 0x2e,
};

class Interpreter {
public:
    Interpreter(const FrameInfo &frame_info, uintptr_t until, FrameRules &result)
        : info(frame_info), pc(until), location(frame_info.function), rules(result) {}

    bool run() {
        rules = {};
        if (!run(info.common_program, info.common_program_end))
            return false;
        initial = rules;
        return run(info.program, info.program_end);
    }

private:
    // Compilers nest none.
    static constexpr int most_remembered = 2;

    bool run(uintptr_t begin, uintptr_t end) {
        Reader reader(begin, end);
        while (!reader.at_end() && location <= pc)
            if (!step(reader))
                return false;
        return true;
    }

    void advance(uintptr_t units) { location += units * info.code_factor; }

    // Vector registers and their like lead to no caller.
    void set(uintptr_t number, How how, intptr_t value) {
        if (number < Registers::count)
            rules.registers[number] = {how, value};
    }

    void restore(uintptr_t number) {
        if (number < Registers::count)
            rules.registers[number] = initial.registers[number];
    }

    void define_address(uintptr_t number, intptr_t offset) {
        rules.address_by_expression = false;
        rules.address_register = static_cast<int>(number);
        rules.address_offset = offset;
    }

    // The address of an expression, which begins with its length.
    static intptr_t expression(Reader &reader) {
        const auto address = static_cast<intptr_t>(reader.position());
        reader.skip(reader.uleb128());
        return address;
    }

    bool step(Reader &reader) {
        const uint8_t instruction = reader.byte();
        const uint8_t operand = instruction & 0x3f;
        switch (instruction & 0xc0) {
        case DW_CFA_advance_loc:
            advance(operand);
            return true;
        case DW_CFA_offset:
            set(operand, How::at_offset, factored(reader.uleb128()));
            return true;
        case DW_CFA_restore:
            restore(operand);
            return true;
        default:
            return step(reader, instruction);
        }
    }

    bool step(Reader &reader, uint8_t instruction) {
        uintptr_t number;
        switch (instruction) {
        case DW_CFA_nop:
            break;
        case DW_CFA_set_loc:
            location = reader.pointer(info.pointer_encoding);
            break;
        case DW_CFA_advance_loc1:
            advance(reader.byte());
            break;
        case DW_CFA_advance_loc2:
            advance(reader.read<uint16_t>());
            break;
        case DW_CFA_advance_loc4:
            advance(reader.read<uint32_t>());
            break;
        case DW_CFA_offset_extended:
            number = reader.uleb128();
            set(number, How::at_offset, factored(reader.uleb128()));
            break;
        case DW_CFA_offset_extended_sf:
            number = reader.uleb128();
            set(number, How::at_offset, reader.sleb128() * info.data_factor);
            break;
        case DW_CFA_val_offset:
            number = reader.uleb128();
            set(number, How::is_offset, factored(reader.uleb128()));
            break;
        case DW_CFA_val_offset_sf:
            number = reader.uleb128();
            set(number, How::is_offset, reader.sleb128() * info.data_factor);
            break;
        case DW_CFA_restore_extended:
            restore(reader.uleb128());
            break;
        case DW_CFA_undefined:
            set(reader.uleb128(), How::undefined, 0);
            break;
        case DW_CFA_same_value:
            set(reader.uleb128(), How::same, 0);
            break;
        case DW_CFA_register:
            number = reader.uleb128();
            set(number, How::in_register, static_cast<intptr_t>(reader.uleb128()));
            break;
        case DW_CFA_expression:
            number = reader.uleb128();
            set(number, How::at_expression, expression(reader));
            break;
        case DW_CFA_val_expression:
            number = reader.uleb128();
            set(number, How::is_expression, expression(reader));
            break;
        case DW_CFA_remember_state:
            if (remembered_count == most_remembered)
                return false;
            remembered[remembered_count++] = rules;
            break;
        case DW_CFA_restore_state:
            if (remembered_count == 0)
                return false;
            rules = remembered[--remembered_count];
            break;
        case DW_CFA_def_cfa:
            number = reader.uleb128();
            define_address(number, static_cast<intptr_t>(reader.uleb128()));
            break;
        case DW_CFA_def_cfa_sf:
            number = reader.uleb128();
            define_address(number, reader.sleb128() * info.data_factor);
            break;
        case DW_CFA_def_cfa_register:
            define_address(reader.uleb128(), rules.address_offset);
            break;
        case DW_CFA_def_cfa_offset:
            rules.address_offset = static_cast<intptr_t>(reader.uleb128());
            break;
        case DW_CFA_def_cfa_offset_sf:
            rules.address_offset = reader.sleb128() * info.data_factor;
            break;
        case DW_CFA_def_cfa_expression:
            rules.address_by_expression = true;
            rules.address_expression = expression(reader);
            break;
        case DW_CFA_GNU_args_size:
            reader.uleb128();
            break;
        default:
            return false;
        }
        return true;
    }

    intptr_t factored(uintptr_t value) const { return static_cast<intptr_t>(value) * info.data_factor; }

    const FrameInfo &info;
    const uintptr_t pc;
    uintptr_t location;
    FrameRules &rules;
    FrameRules initial = {};
    FrameRules remembered[most_remembered] = {};
    int remembered_count = 0;
};

} // namespace

bool rules_at(const FrameInfo &info, uintptr_t pc, FrameRules &rules) {
    return Interpreter(info, pc, rules).run();
}

} // namespace k42mc::internal::platform
