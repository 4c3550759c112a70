#include "odd_frames.h"

#include <iterator>

// Each has a frame of 32 bytes, the return address included, and keeps its stack pointer at the lowest
// word.
#ifdef __x86_64__
#define ENTER          "sub $24, %rsp\n mov %rsp, (%rsp)\n mov %rbx, 8(%rsp)\n mov 24(%rsp), %rbx\n"
#define CALL           "call *%rdi\n"
#define LEAVE          "mov 8(%rsp), %rbx\n add $24, %rsp\n"
#define SP             "7"
#define PC             "16"
#define SP_PLUS        "0x77"
#define LIT_WORD       "0x38"
#define FACTORED_FRAME "0x7c" // 32 bytes in units of -8
#define NO_REGISTER    "17"
#define SAVED_BX       "3" // the distance in words
#define FAR_POINTER    "0x1c"
#else
#define ENTER          "sub $28, %esp\n mov %esp, (%esp)\n mov %ebx, 8(%esp)\n mov 28(%esp), %ebx\n"
#define CALL           "call *32(%esp)\n"
#define LEAVE          "mov 8(%esp), %ebx\n add $28, %esp\n"
#define SP             "4"
#define PC             "8"
#define SP_PLUS        "0x74"
#define LIT_WORD       "0x34"
#define FACTORED_FRAME "0x78" // in units of -4
#define NO_REGISTER    "9"
#define SAVED_BX       "6"
#define FAR_POINTER    "0x9b"
#endif
#define BX            "3"
#define FRAME         " .cfi_def_cfa_offset 32\n"
#define ESCAPE(bytes) " .cfi_escape " bytes "\n"
// The frame's address by an expression.
#define ADDRESS(length, operations) ESCAPE("0x0f, " length ", " operations)
// A frame where the caller's program counter is unknown, unless more is said.
#define BARE_FRAME FRAME ESCAPE("0x07, " PC)
// The caller's program counter by one of the two kinds of expression, which start with the frame's
// address.
#define PC_AT(length, operations) BARE_FRAME ESCAPE("0x10, " PC ", " length ", " operations)
#define PC_IS(length, operations) BARE_FRAME ESCAPE("0x16, " PC ", " length ", " operations)
// An address that is right if the comparison is true, or if it is false.
#define IF(length, comparison) ADDRESS(length "+5", SP_PLUS ", 0, " comparison ", 0x35, 0x24, 0x22")
#define IF_NOT(length, comparison)                                                                      \
    ADDRESS(length "+7", SP_PLUS ", 0, " comparison ", 0x31, 0x22, 0x35, 0x24, 0x22")

#define KNOWN_FRAMES(X)                                                                                 \
    X(breg, ADDRESS("2", SP_PLUS ", 32"))                                                               \
    X(const1u, ADDRESS("5", SP_PLUS ", 0, 0x08, 32, 0x22"))                                             \
    X(const1s, ADDRESS("5", SP_PLUS ", 0, 0x09, 0xe0, 0x1c"))                                           \
    X(const2u, ADDRESS("8", SP_PLUS ", 0, 0x0a, 0, 1, 0x33, 0x25, 0x22"))                               \
    X(const2s, ADDRESS("6", SP_PLUS ", 0, 0x0b, 0xe0, 0xff, 0x1c"))                                     \
    X(const4u, ADDRESS("8", SP_PLUS ", 0, 0x0c, 32, 0, 0, 0, 0x22"))                                    \
    X(const4s, ADDRESS("8", SP_PLUS ", 0, 0x0d, 0xe0, 0xff, 0xff, 0xff, 0x1c"))                         \
    X(constu, ADDRESS("6", SP_PLUS ", 0, 0x10, 0xa0, 0, 0x22"))                                         \
    X(consts, ADDRESS("5", SP_PLUS ", 0, 0x11, 0x60, 0x1c"))                                            \
    X(literals, ADDRESS("6", SP_PLUS ", 0, 0x4f, 0x31, 0x22, 0x22"))                                    \
    X(duplicate, ADDRESS("6", "0x40, 0x12, 0x22, " SP_PLUS ", 0, 0x22"))                                \
    X(drop, ADDRESS("4", SP_PLUS ", 32, 0x35, 0x13"))                                                   \
    X(swap, ADDRESS("6", "0x08, 0x20, " SP_PLUS ", 0, 0x16, 0x22"))                                     \
    X(swap_minus, ADDRESS("6", "0x09, 0xe0, " SP_PLUS ", 0, 0x16, 0x1c"))                               \
    X(multiply, ADDRESS("6", SP_PLUS ", 0, 0x38, 0x34, 0x1e, 0x22"))                                    \
    X(negate, ADDRESS("6", SP_PLUS ", 0, 0x09, 0xe0, 0x1f, 0x22"))                                      \
    X(bits_and, ADDRESS("8", SP_PLUS ", 0, 0x08, 0x33, 0x08, 0x2c, 0x1a, 0x22"))                        \
    X(bits_or, ADDRESS("9", SP_PLUS ", 0, 0x40, 0x08, 0x30, 0x21, 0x40, 0x1c, 0x22"))                   \
    X(shift_right, ADDRESS("7", SP_PLUS ", 0, 0x08, 0x81, 0x32, 0x25, 0x22"))                           \
    X(load, ADDRESS("5", SP_PLUS ", 0, 0x06, 0x23, 32"))                                                \
    X(nothing, ADDRESS("3", "0x96, " SP_PLUS ", 32"))                                                   \
    X(equal, IF("3", "0x32, 0x32, 0x29"))                                                               \
    X(not_equal, IF_NOT("3", "0x32, 0x32, 0x2e"))                                                       \
    X(less, IF("4", "0x31, 0x1f, 0x30, 0x2d"))                                                          \
    X(not_less, IF_NOT("3", "0x31, 0x31, 0x2d"))                                                        \
    X(at_most, IF("3", "0x31, 0x31, 0x2c"))                                                             \
    X(not_at_most, IF_NOT("4", "0x30, 0x31, 0x1f, 0x2c"))                                               \
    X(greater, IF("4", "0x30, 0x31, 0x1f, 0x2b"))                                                       \
    X(not_greater, IF_NOT("3", "0x31, 0x31, 0x2b"))                                                     \
    X(at_least, IF("3", "0x31, 0x31, 0x2a"))                                                            \
    X(not_at_least, IF_NOT("4", "0x31, 0x1f, 0x30, 0x2a"))                                              \
    X(offset_sf, ESCAPE("0x13, " FACTORED_FRAME))                                                       \
    X(def_cfa_sf, ESCAPE("0x12, " SP ", " FACTORED_FRAME))                                              \
    X(offset_after_expression, ADDRESS("2", SP_PLUS ", 32") ESCAPE("0x0e, 16"))                         \
    X(register_after_expression, FRAME ADDRESS("1", "0x30") ESCAPE("0x0d, " SP))                        \
    X(def_cfa, ESCAPE("0x0c, " SP ", 32"))                                                              \
    X(offset_extended, BARE_FRAME ESCAPE("0x05, " PC ", 1"))                                            \
    X(offset_extended_sf, BARE_FRAME ESCAPE("0x11, " PC ", 1"))                                         \
    X(restored, FRAME ESCAPE("0x05, " BX ", " SAVED_BX) ESCAPE("0x06, " BX))                            \
    X(same_value, FRAME ESCAPE("0x08, " BX))                                                            \
    X(value_offset, FRAME ESCAPE("0x14, " BX ", 1"))                                                    \
    X(value_offset_sf, FRAME ESCAPE("0x15, " BX ", 1"))                                                 \
    X(register, BARE_FRAME ESCAPE("0x09, " PC ", " BX))                                                 \
    X(saved, FRAME ESCAPE("0x05, " BX ", " SAVED_BX))                                                   \
    X(saved_vector, FRAME ESCAPE("0x05, " NO_REGISTER ", 1"))                                           \
    X(handlers, " .cfi_lsda " FAR_POINTER ", odd_handlers\n" FRAME)                                     \
    X(arguments, FRAME ESCAPE("0x2e, 16"))                                                              \
    X(remembered, FRAME " .cfi_remember_state\n .cfi_def_cfa_offset 64\n .cfi_restore_state\n")         \
    X(far, " .skip 100, 0x90\n" FRAME                                                                   \
           " .skip 300, 0x90\n" ESCAPE("0x2e, 0") " .skip 70000, 0x90\n" ESCAPE("0x2e, 16"))            \
    X(pc_at, PC_AT("2", LIT_WORD ", 0x1c"))                                                             \
    X(pc_is, PC_IS("3", LIT_WORD ", 0x1c, 0x06"))

#define UNKNOWN_FRAMES(X)                                                                               \
    X(unknown_operation, ADDRESS("3", SP_PLUS ", 32, 0x97"))                                            \
    X(unknown_operation_on_two, ADDRESS("5", SP_PLUS ", 32, 0x31, 0x31, 0x97"))                         \
    X(pop_of_nothing, ADDRESS("1", "0x13"))                                                             \
    X(far_too_much, ADDRESS("10", "0x31, 0x31, 0x31, 0x31, 0x31, 0x31, 0x31, 0x31, " SP_PLUS ", 32"))   \
    X(vector_register, ADDRESS("2", "0x8f, 32"))                                                        \
    X(load_of_null, ADDRESS("2", "0x30, 0x06"))                                                         \
    X(load_of_anything, ADDRESS("4", SP_PLUS ", 1, 0x06, 0x06"))                                        \
    X(null_address, ADDRESS("1", "0x30"))                                                               \
    X(shift_out, ADDRESS("7", SP_PLUS ", 0, 0x31, 0x08, 64, 0x24, 0x22"))                               \
    X(no_higher, ADDRESS("2", SP_PLUS ", 0"))                                                           \
    X(address_in_vector_register, ESCAPE("0x0c, 40, 32"))                                               \
    X(nothing_remembered, FRAME ESCAPE("0x0b"))                                                         \
    X(too_much_remembered, FRAME ESCAPE("0x0a, 0x0a, 0x0a"))                                            \
    X(outermost, FRAME ESCAPE("0x07, " PC))                                                             \
    X(pc_in_vector_register, FRAME ESCAPE("0x09, " PC ", 40"))                                          \
    X(pc_at_null, PC_AT("1", "0x30"))                                                                   \
    X(pc_is_null, PC_IS("1", "0x30"))                                                                   \
    X(pc_saved_off_the_stack, FRAME ESCAPE("0x05, " PC ", 0x80, 0x80, 0x80, 0x80, 0x02"))

#define DEFINE(name, rules)                                                                             \
    asm(".text\n.type odd_" #name ", @function\nodd_" #name                                             \
        ":\n.cfi_startproc\n" ENTER rules CALL LEAVE "ret\n.cfi_endproc\n.size odd_" #name              \
        ", .-odd_" #name "\n");                                                                         \
    extern "C" void odd_##name(void (*called)());
#define ROW(name, rules) {#name, odd_##name},

KNOWN_FRAMES(DEFINE)
UNKNOWN_FRAMES(DEFINE)

const OddFrame known_frames[] = {KNOWN_FRAMES(ROW)};
const int known_frame_count = std::size(known_frames);
const OddFrame unknown_frames[] = {UNKNOWN_FRAMES(ROW)};
const int unknown_frame_count = std::size(unknown_frames);
