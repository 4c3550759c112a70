// The loader knows the module of an address, without a lock; the linker has put a table of the module's
// entries, sorted by address, into each.
#include "frame_info.h"

#include "dwarf.h"
#include <dlfcn.h>

namespace k42mc::platform {
namespace {

using namespace dwarf;

struct Module {
    uintptr_t begin, end;
    const link_map *map;
    uintptr_t table;
};

bool find_module(uintptr_t pc, Module &module) {
    dl_find_object found;
    if (_dl_find_object(reinterpret_cast<void *>(pc), &found) != 0 || found.dlfo_eh_frame == nullptr)
        return false;
    module = {reinterpret_cast<uintptr_t>(found.dlfo_map_start),
              reinterpret_cast<uintptr_t>(found.dlfo_map_end), found.dlfo_link_map,
              reinterpret_cast<uintptr_t>(found.dlfo_eh_frame)};
    return true;
}

// The address of the last entry that begins at or before pc, 0 if there is none.
uintptr_t look_up(const Module &module, uintptr_t pc) {
    Reader reader(module.table, module.end);
    const uint8_t version = reader.byte(), frames_encoding = reader.byte(),
                  count_encoding = reader.byte(), table_encoding = reader.byte();
    // Linkers write no other table.
    if (version != 1 || table_encoding != (DW_EH_PE_datarel | DW_EH_PE_sdata4))
        return 0;
    reader.pointer(frames_encoding);
    const uintptr_t count = reader.pointer(count_encoding);
    struct Entry {
        int32_t function, description; // relative to the table
    };
    if (count > reader.left() / sizeof(Entry))
        return 0;
    const auto *const entries = reinterpret_cast<const Entry *>(reader.position());
    const auto wanted = static_cast<intptr_t>(pc - module.table);
    uintptr_t low = 0, high = count;
    while (low < high) {
        const uintptr_t middle = (low + high) / 2;
        if (entries[middle].function <= wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low == 0 ? 0 : module.table + static_cast<uintptr_t>(intptr_t{entries[low - 1].description});
}

// A reader over an entry behind its length and, in `id`, the field that tells the two kinds apart.
Reader open_entry(const Module &module, uintptr_t address, uintptr_t &id_at, uint32_t &id) {
    const bool inside = address >= module.begin && address < module.end;
    Reader reader(inside ? address : module.end, module.end);
    const auto length = reader.read<uint32_t>();
    reader.end_at(reader.position() + length);
    id_at = reader.position();
    id = reader.read<uint32_t>();
    return reader;
}

bool read_common(const Module &module, uintptr_t address, FrameInfo &info) {
    uintptr_t id_at;
    uint32_t id;
    Reader reader = open_entry(module, address, id_at, id);
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

bool read_description(const Module &module, uintptr_t address, uintptr_t pc, FrameInfo &info) {
    uintptr_t id_at;
    uint32_t distance;
    Reader reader = open_entry(module, address, id_at, distance);
    if (distance == 0 || !read_common(module, id_at - distance, info))
        return false;
    info.function = reader.pointer(info.pointer_encoding);
    const uintptr_t size = reader.pointer(info.pointer_encoding & 0x0f);
    if (pc - info.function >= size)
        return false;
    reader.skip(reader.uleb128()); // augmentation
    info.program = reader.position();
    info.program_end = reader.position() + reader.left();
    info.module = module.map;
    info.module_end = module.end;
    return true;
}

} // namespace

bool find_frame_info(uintptr_t pc, FrameInfo &info) {
    Module module;
    if (!find_module(pc, module))
        return false;
    const uintptr_t description = look_up(module, pc);
    return description != 0 && read_description(module, description, pc, info);
}

} // namespace k42mc::platform
