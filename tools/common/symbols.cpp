#include "tools/common/symbols.h"

#include <cstdlib>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <map>
#include <optional>

namespace {

constexpr Dwfl_Callbacks callbacks = {
    .find_elf = dwfl_build_id_find_elf,
    .find_debuginfo = dwfl_standard_find_debuginfo,
    .section_address = dwfl_offline_section_address,
    .debuginfo_path = nullptr,
};

struct EndDwfl {
    void operator()(Dwfl *dwfl) const { dwfl_end(dwfl); }
};

struct Free {
    void operator()(void *memory) const { free(memory); }
};

// One file, laid out by libdw as if it were loaded.
struct Module {
    std::unique_ptr<Dwfl, EndDwfl> dwfl;
    Dwfl_Module *module = nullptr;
    GElf_Addr bias = 0;       // of libdw's layout over the file's own addresses
    GElf_Addr first_page = 0; // the file's own address of the start of its first segment
    std::multimap<std::string, GElf_Addr, std::less<>> functions; // the file's own addresses, by name
};

// A place in a module, taken apart.
struct Place {
    std::string_view module;
    std::string_view function; // what the offset counts from; empty for the module
    GElf_Addr offset = 0;
    GElf_Addr address = 0; // in the process, where it is known
};

GElf_Addr hexadecimal(std::string_view text) {
    return strtoull(std::string(text).c_str(), nullptr, 16);
}

// "module(function+0x12) [0x55ee]"
Place parse_trace(std::string_view text, size_t bracket) {
    Place place;
    place.address = hexadecimal(text.substr(bracket + 2));
    text = text.substr(0, bracket);
    const size_t open = text.rfind('(');
    const size_t plus = text.rfind("+0x");
    if (open == std::string_view::npos || plus == std::string_view::npos || plus < open)
        return place;
    place.module = text.substr(0, open);
    place.function = text.substr(open + 1, plus - open - 1);
    place.offset = hexadecimal(text.substr(plus + 1));
    return place;
}

Place parse_place(std::string_view text) {
    if (const size_t bracket = text.rfind(" [0x"); bracket != std::string_view::npos)
        return parse_trace(text, bracket);
    const size_t plus = text.rfind("+0x");
    if (plus == std::string_view::npos)
        return {};
    return {text.substr(0, plus), {}, hexadecimal(text.substr(plus + 1)), 0};
}

// Without the version that the linker puts behind some.
std::string bare_name(const char *name) {
    const std::string_view text = name;
    return std::string(text.substr(0, text.find('@')));
}

std::string demangled(const char *name) {
    if (name == nullptr)
        return {};
    const std::string bare = bare_name(name);
    int status = 0;
    const std::unique_ptr<char, Free> text(abi::__cxa_demangle(bare.c_str(), nullptr, nullptr, &status));
    return status == 0 ? text.get() : bare;
}

GElf_Addr first_page_of(Elf *elf) {
    constexpr GElf_Addr page_mask = 4095;
    size_t count = 0;
    elf_getphdrnum(elf, &count);
    for (size_t i = 0; i < count; ++i) {
        GElf_Phdr segment;
        if (gelf_getphdr(elf, static_cast<int>(i), &segment) != nullptr && segment.p_type == PT_LOAD)
            return segment.p_vaddr & ~page_mask;
    }
    return 0;
}

Module open_module(const std::string &path) {
    Module module;
    module.dwfl.reset(dwfl_begin(&callbacks));
    module.module = dwfl_report_offline(module.dwfl.get(), "", path.c_str(), -1);
    dwfl_report_end(module.dwfl.get(), nullptr, nullptr);
    if (module.module == nullptr)
        return module;
    if (Elf *elf = dwfl_module_getelf(module.module, &module.bias))
        module.first_page = first_page_of(elf);
    return module;
}

void list_functions(Module &module) {
    const int count = dwfl_module_getsymtab(module.module);
    for (int i = 1; i < count; ++i) {
        GElf_Sym symbol;
        GElf_Addr address = 0;
        const char *name =
            dwfl_module_getsym_info(module.module, i, &symbol, &address, nullptr, nullptr, nullptr);
        if (name != nullptr && address != 0)
            module.functions.emplace(bare_name(name), address - module.bias);
    }
}

// The file's own address of a place. Of functions with one name, the one that fits the address in the
// process: modules lie at the start of pages.
std::optional<GElf_Addr> own_address(Module &module, const Place &place) {
    constexpr GElf_Addr in_page = 4095;
    if (place.function.empty())
        return place.offset + module.first_page;
    if (module.functions.empty())
        list_functions(module);
    const auto [first, last] = module.functions.equal_range(place.function);
    for (auto candidate = first; candidate != last; ++candidate)
        if (((candidate->second + place.offset - place.address) & in_page) == 0)
            return candidate->second + place.offset;
    return {};
}

// A scope's name as the linker knows it, else as the source has it.
std::string name_of(Dwarf_Die *scope) {
    Dwarf_Attribute attribute;
    for (const unsigned which : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name})
        if (dwarf_attr_integrate(scope, which, &attribute) != nullptr)
            return demangled(dwarf_formstring(&attribute));
    const char *name = dwarf_diename(scope);
    return name != nullptr ? name : "";
}

Dwarf_Word number(Dwarf_Die *scope, unsigned which) {
    Dwarf_Attribute attribute;
    Dwarf_Word value = 0;
    if (dwarf_attr(scope, which, &attribute) != nullptr)
        dwarf_formudata(&attribute, &value);
    return value;
}

void place_at_call(Dwarf_Die *scope, Dwarf_Die *unit, SourceFrame &frame) {
    Dwarf_Files *files = nullptr;
    size_t count = 0;
    const Dwarf_Word file = number(scope, DW_AT_call_file);
    frame.file.clear();
    if (dwarf_getsrcfiles(unit, &files, &count) == 0 && file < count)
        if (const char *path = dwarf_filesrc(files, file, nullptr, nullptr))
            frame.file = path;
    frame.line = static_cast<int>(number(scope, DW_AT_call_line));
}

// The scopes around an address, innermost first, through all that was inlined there.
struct Scopes {
    std::unique_ptr<Dwarf_Die[], Free> dies;
    int count = 0;
};

Scopes scopes_around(Dwarf_Die *unit, Dwarf_Addr address) {
    Dwarf_Die *dies = nullptr;
    if (dwarf_getscopes(unit, address, &dies) <= 0)
        return {};
    Dwarf_Die innermost = dies[0];
    free(dies);
    dies = nullptr;
    const int count = dwarf_getscopes_die(&innermost, &dies);
    return {std::unique_ptr<Dwarf_Die[], Free>(dies), count};
}

// The compilation unit around an address. Not every compiler writes the index that libdw goes by.
Dwarf_Die *unit_around(Dwfl_Module *module, GElf_Addr address, Dwarf_Addr &bias) {
    Dwarf_Die *unit = dwfl_module_addrdie(module, address, &bias);
    if (unit == nullptr)
        while ((unit = dwfl_module_nextcu(module, unit, &bias)) != nullptr)
            if (dwarf_haspc(unit, address - bias) > 0)
                break;
    return unit;
}

// Replaces the one frame that the symbol table gives by those that debug information tells apart.
void use_debug_information(Module &module, GElf_Addr address, std::vector<SourceFrame> &frames) {
    Dwarf_Addr bias = 0;
    Dwarf_Die *unit = unit_around(module.module, address, bias);
    if (unit == nullptr)
        return;
    SourceFrame frame = frames.back();
    frames.clear();
    if (Dwarf_Line *line = dwarf_getsrc_die(unit, address - bias)) {
        if (const char *path = dwarf_linesrc(line, nullptr, nullptr))
            frame.file = path;
        dwarf_lineno(line, &frame.line);
    }
    const Scopes scopes = scopes_around(unit, address - bias);
    for (int i = 0; i < scopes.count; ++i) {
        Dwarf_Die *scope = &scopes.dies[static_cast<size_t>(i)];
        if (dwarf_tag(scope) == DW_TAG_subprogram)
            break;
        if (dwarf_tag(scope) != DW_TAG_inlined_subroutine)
            continue;
        frames.push_back({name_of(scope), frame.file, frame.line, true});
        place_at_call(scope, unit, frame);
    }
    frames.push_back(std::move(frame));
}

} // namespace

struct Symbolizer::Modules {
    std::map<std::string, Module, std::less<>> by_path;
    std::map<std::string, std::vector<SourceFrame>, std::less<>> known; // by what was asked

    Module &at(std::string_view path) {
        const auto found = by_path.find(path);
        if (found != by_path.end())
            return found->second;
        return by_path.emplace(path, open_module(std::string(path))).first->second;
    }

    std::vector<SourceFrame> find(std::string_view text);
};

Symbolizer::Symbolizer() : modules_(std::make_unique<Modules>()) {}

Symbolizer::~Symbolizer() = default;

const std::vector<SourceFrame> &Symbolizer::lookup(std::string_view place) {
    const auto found = modules_->known.find(place);
    if (found != modules_->known.end())
        return found->second;
    return modules_->known.emplace(place, modules_->find(place)).first->second;
}

std::vector<SourceFrame> Symbolizer::Modules::find(std::string_view text) {
    std::vector<SourceFrame> frames(1);
    const Place place = parse_place(text);
    if (place.module.empty())
        return frames;
    Module &module = at(place.module);
    if (module.module == nullptr)
        return frames;
    const std::optional<GElf_Addr> own = own_address(module, place);
    if (!own)
        return frames;
    const GElf_Addr address = *own + module.bias - 1; // in the call, not behind it
    frames[0].function = demangled(dwfl_module_addrname(module.module, address));
    use_debug_information(module, address, frames);
    return frames;
}

std::string describe(std::string_view place, const SourceFrame &frame) {
    std::string text = frame.function.empty() ? std::string(place) : frame.function;
    if (!frame.file.empty())
        text += " at " + frame.file + ":" + std::to_string(frame.line);
    else if (!frame.function.empty())
        text += " (" + std::string(place) + ")";
    return text;
}

std::string_view module_of(std::string_view place) {
    const std::string_view module = parse_place(place).module;
    return module.empty() ? place : module;
}
