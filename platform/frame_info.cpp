#include "platform/frame_info.h"

#include "platform/dwarf.h"

#include <dlfcn.h>

namespace k42mc::internal::platform {
namespace {

using namespace dwarf;

struct Entry {
    int32_t function, description; // relative to the table
};

struct Entries {
    const Entry *first;
    uintptr_t count;
};

Entries entries_of(const FrameTable &table) {
    Reader reader(table.address, table.module_end);
    const uint8_t version = reader.byte(), frames_encoding = reader.byte(),
                  count_encoding = reader.byte(), table_encoding = reader.byte();
    // Linkers write no other table.
    if (version != 1 || table_encoding != (DW_EH_PE_datarel | DW_EH_PE_sdata4))
        return {nullptr, 0};
    reader.pointer(frames_encoding);
    const uintptr_t count = reader.pointer(count_encoding);
    if (count > reader.left() / sizeof(Entry) || count > UINT32_MAX)
        return {nullptr, 0};
    return {reinterpret_cast<const Entry *>(reader.position()), count};
}

uintptr_t description_of(const FrameTable &table, const Entry &entry) {
    return table.address + static_cast<uintptr_t>(intptr_t{entry.description});
}

// A reader over an entry, which begins with its length.
Reader open_entry(const FrameTable &table, uintptr_t address) {
    const bool inside = address >= table.module_begin && address < table.module_end;
    Reader reader(inside ? address : table.module_end, table.module_end), at_length = reader;
    const auto length = at_length.read<uint32_t>();
    reader.end_at(at_length.position() + length);
    return reader;
}

bool read_common(const FrameTable &table, uintptr_t address, FrameInfo &info) {
    Reader reader = open_entry(table, address);
    reader.skip(sizeof(uint32_t));
    const auto id = reader.read<uint32_t>();
    const uint8_t version = reader.byte();
    if (id != 0 || (version != 1 && version != 3))
        return false;
    char augmentation[8] = {};
    for (size_t i = 0; i < sizeof augmentation - 1; ++i)
        if ((augmentation[i] = static_cast<char>(reader.byte())) == 0)
            break;
    info.code_factor = reader.uleb128();
    info.data_factor = reader.sleb128();
    info.return_column = version == 1 ? reader.byte() : reader.uleb128();
    info.pointer_encoding = DW_EH_PE_absptr;
    info.is_signal_frame = false;
    if (augmentation[0] != 'z') // which every compiler writes
        return false;
    const uintptr_t data_bytes = reader.uleb128(), program = reader.position() + data_bytes;
    for (const char *each = augmentation + 1; *each; ++each) {
        switch (*each) {
        case 'R':
            info.pointer_encoding = reader.byte();
            break;
        case 'P':
            reader.pointer(reader.byte() & 0x7f);
            break;
        case 'L':
            reader.byte();
            break;
        case 'S':
            info.is_signal_frame = true;
            break;
        default:
            return false;
        }
    }
    reader.skip(program - reader.position());
    info.common_program = reader.position();
    info.common_program_end = reader.position() + reader.left();
    return true;
}

// From where a description tells it, at its front.
uintptr_t read_common_address(Reader &reader) {
    reader.skip(sizeof(uint32_t));
    const uintptr_t here = reader.position();
    const auto distance = reader.read<uint32_t>();
    return distance == 0 ? 0 : here - distance;
}

bool read_description(const FrameTable &table, uintptr_t address, uintptr_t pc, FrameInfo &info) {
    Reader reader = open_entry(table, address);
    const uintptr_t common = read_common_address(reader);
    if (common == 0 || !read_common(table, common, info))
        return false;
    info.function = reader.pointer(info.pointer_encoding);
    const uintptr_t size = reader.pointer(info.pointer_encoding & 0x0f);
    if (pc - info.function >= size)
        return false;
    reader.skip(reader.uleb128()); // augmentation
    info.program = reader.position();
    info.program_end = reader.position() + reader.left();
    info.module_end = table.module_end;
    return true;
}

} // namespace

bool find_frame_table(uintptr_t pc, FrameTable &table) {
    dl_find_object found;
    if (_dl_find_object(reinterpret_cast<void *>(pc), &found) != 0 || found.dlfo_eh_frame == nullptr)
        return false;
    table = {reinterpret_cast<uintptr_t>(found.dlfo_map_start),
             reinterpret_cast<uintptr_t>(found.dlfo_map_end), found.dlfo_link_map,
             reinterpret_cast<uintptr_t>(found.dlfo_eh_frame)};
    // The loader has it from the module and does not look.
    return table.address >= table.module_begin && table.address < table.module_end;
}

bool find_frame_entry(const FrameTable &table, uintptr_t pc, uint32_t &index) {
    const Entries entries = entries_of(table);
    const auto wanted = static_cast<intptr_t>(pc - table.address);
    uintptr_t low = 0, high = entries.count;
    while (low < high) {
        const uintptr_t middle = (low + high) / 2;
        if (entries.first[middle].function <= wanted)
            low = middle + 1;
        else
            high = middle;
    }
    index = static_cast<uint32_t>(low - 1);
    return low > 0;
}

bool read_frame_info(const FrameTable &table, uint32_t index, uintptr_t pc, FrameInfo &info) {
    return read_description(table, description_of(table, entries_of(table).first[index]), pc, info);
}

bool find_frame_info(uintptr_t pc, FrameInfo &info) {
    FrameTable table;
    uint32_t index;
    return find_frame_table(pc, table) && find_frame_entry(table, pc, index) &&
           read_frame_info(table, index, pc, info);
}

} // namespace k42mc::internal::platform
