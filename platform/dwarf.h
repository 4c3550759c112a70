// Reading the bytes of call-frame information, never beyond their end: what lies there reads as zero,
// and the reader is at its end.
#pragma once

#include <stdint.h>
#include <string.h>

namespace k42mc::internal::platform::dwarf {

// How pointers are encoded: a format, what it is relative to, and whether it points to the pointer.
enum : uint8_t {
    DW_EH_PE_absptr = 0x00,
    DW_EH_PE_uleb128 = 0x01,
    DW_EH_PE_udata2 = 0x02,
    DW_EH_PE_udata4 = 0x03,
    DW_EH_PE_udata8 = 0x04,
    DW_EH_PE_sleb128 = 0x09,
    DW_EH_PE_sdata2 = 0x0a,
    DW_EH_PE_sdata4 = 0x0b,
    DW_EH_PE_sdata8 = 0x0c,
    DW_EH_PE_pcrel = 0x10,
    DW_EH_PE_datarel = 0x30,
    DW_EH_PE_omit = 0xff,
};

class Reader {
public:
    Reader(uintptr_t at, uintptr_t end) : at_(at), end_(at <= end ? end : at) {}

    bool at_end() const { return at_ >= end_; }
    uintptr_t position() const { return at_; }
    uintptr_t left() const { return end_ - at_; }
    void end_at(uintptr_t end) { end_ = end >= at_ && end <= end_ ? end : end_; }
    void skip(uintptr_t bytes) { at_ = bytes <= left() ? at_ + bytes : end_; }

    template <class T> T read() {
        T value{};
        if (left() < sizeof value) {
            at_ = end_;
        } else {
            __builtin_memcpy(&value, reinterpret_cast<const void *>(at_), sizeof value);
            at_ += sizeof value;
        }
        return value;
    }

    uint8_t byte() { return read<uint8_t>(); }

    uintptr_t uleb128() { return leb128(false); }
    intptr_t sleb128() { return static_cast<intptr_t>(leb128(true)); }

    // Of the encodings that GCC, Clang and the linkers use.
    uintptr_t pointer(uint8_t encoding) {
        const uintptr_t here = at_;
        uintptr_t value = 0;
        switch (encoding & 0x0f) {
        case DW_EH_PE_absptr:
            value = read<uintptr_t>();
            break;
        case DW_EH_PE_uleb128:
            value = uleb128();
            break;
        case DW_EH_PE_udata2:
            value = read<uint16_t>();
            break;
        case DW_EH_PE_udata4:
            value = read<uint32_t>();
            break;
        case DW_EH_PE_udata8:
            value = static_cast<uintptr_t>(read<uint64_t>());
            break;
        case DW_EH_PE_sleb128:
            value = leb128(true);
            break;
        case DW_EH_PE_sdata2:
            value = static_cast<uintptr_t>(intptr_t{read<int16_t>()});
            break;
        case DW_EH_PE_sdata4:
            value = static_cast<uintptr_t>(intptr_t{read<int32_t>()});
            break;
        case DW_EH_PE_sdata8:
            value = static_cast<uintptr_t>(read<int64_t>());
            break;
        default:
            at_ = end_;
        }
        return (encoding & 0x70) == DW_EH_PE_pcrel ? value + here : value;
    }

private:
    uintptr_t leb128(bool is_signed) {
        uintptr_t value = 0;
        unsigned shift = 0;
        uint8_t byte;
        do {
            byte = read<uint8_t>();
            if (shift < 8 * sizeof value)
                value |= uintptr_t{byte & 0x7fu} << shift;
            shift += 7;
        } while (byte & 0x80);
        if (is_signed && byte & 0x40 && shift < 8 * sizeof value)
            value |= ~uintptr_t{0} << shift;
        return value;
    }

    uintptr_t at_, end_;
};

} // namespace k42mc::internal::platform::dwarf
