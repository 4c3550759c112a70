#include "tools/common/symbols.h"

#include "tools/common/file.h"
#include "tools/common/inlined.h"
#include "tools/common/symbol_index.h"
#include "tools/shared/pattern.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <filesystem>
#include <iterator>
#include <map>
#include <optional>

namespace {

// What a module names as its debug information may be anything by now, and libdw waits for a pipe's
// writer.
bool would_wait(const std::string &path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

// Where the debug information of a module may lie apart from it: beside it, or below the system's own folder.
std::vector<std::string> places_of(const std::string &module, const char *link) {
    const size_t slash = module.rfind('/') + 1; // or 0
    const std::string folder = module.substr(0, slash);
    const std::string own = module.substr(slash);
    std::vector<std::string> places;
    for (const std::string &name : {link != nullptr ? std::string(link) : own + ".debug", own}) {
        places.push_back(folder + name);
        places.push_back(std::string(folder).append(".debug/").append(name));
        for (size_t at = folder.find('/'); at != std::string::npos; at = folder.find('/', at + 1))
            places.push_back(std::string("/usr/lib/debug").append(folder, at).append(name));
    }
    if (link != nullptr && *link == '/')
        places.emplace_back(link);
    std::erase(places, module);
    return places;
}

bool exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

// Where libdw finds nothing it asks servers, and loads a dozen of libraries first, even if none is named.
bool servers_are_named() {
    const char *servers = getenv("DEBUGINFOD_URLS");
    return servers != nullptr && *servers != '\0';
}

int find_debuginfo(Dwfl_Module *module, void **userdata, const char *name, Dwarf_Addr base,
                   const char *file, const char *link, GElf_Word checksum, char **found) {
    std::error_code error;
    const std::filesystem::path path = file != nullptr ? file : "";
    std::vector<std::string> places = places_of(path, link);
    std::ranges::move(places_of(std::filesystem::weakly_canonical(path, error), link),
                      std::back_inserter(places));
    if (std::ranges::any_of(places, would_wait))
        return -1;
    if (servers_are_named() || std::ranges::any_of(places, exists))
        return dwfl_standard_find_debuginfo(module, userdata, name, base, file, link, checksum, found);
    return dwfl_build_id_find_debuginfo(module, userdata, name, base, file, link, checksum, found);
}

constexpr Dwfl_Callbacks callbacks = {
    .find_elf = dwfl_build_id_find_elf,
    .find_debuginfo = find_debuginfo,
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
    GElf_Addr bias = 0; // of libdw's layout over the file's own addresses
    std::multimap<std::string, GElf_Addr, std::less<>> functions; // the file's own addresses, by name
    std::optional<SymbolIndex> symbols;                           // once they were asked for
    std::map<Dwarf_Off, UnitFunctions> units;                     // that were looked into
};

// A return address, taken apart.
struct Pc {
    std::string_view module;
    std::string_view function; // what the offset counts from; empty for the module
    GElf_Addr offset = 0;
    GElf_Addr address = 0; // in the process, where it is known
};

// Takes a number off the end of a text, and what it has to follow.
std::optional<GElf_Addr> take_hexadecimal(std::string_view &text, std::string_view mark) {
    const size_t at = text.rfind(mark);
    if (at == std::string_view::npos)
        return {};
    const std::string digits(text.substr(at + mark.size()));
    if (digits.empty() || digits.find_first_not_of("0123456789abcdef") != std::string::npos)
        return {};
    text = text.substr(0, at);
    return strtoull(digits.c_str(), nullptr, 16);
}

// "module(function+0x12) [0x55ee]"
std::optional<Pc> parse_trace_line(std::string_view text) {
    if (!text.ends_with(']') || text.starts_with(' '))
        return {};
    text.remove_suffix(1);
    const std::optional<GElf_Addr> address = take_hexadecimal(text, ") [0x");
    const std::optional<GElf_Addr> offset = address ? take_hexadecimal(text, "+0x") : std::nullopt;
    const size_t open = text.rfind('(');
    if (!offset || open == std::string_view::npos || open == 0 ||
        text.find_first_of(" \t", open) != std::string_view::npos)
        return {};
    return Pc{text.substr(0, open), text.substr(open + 1), *offset, *address};
}

// Nothing for what is none.
Pc parse_pc(std::string_view text) {
    if (const std::optional<Pc> pc = parse_trace_line(text))
        return *pc;
    const std::optional<GElf_Addr> offset = take_hexadecimal(text, "+0x");
    return offset ? Pc{text, {}, *offset, 0} : Pc{};
}

// Without the version that the linker puts behind some.
std::string bare_name(const char *name) {
    const std::string_view text = name;
    return std::string(text.substr(0, text.find('@')));
}

std::string readable(const char *name) {
    return name == nullptr ? "" : demangled(bare_name(name));
}

// Not open for anything but an ELF file.
File open_elf(const std::string &path) {
    constexpr off_t most_bytes = 1 << 30;
    File file = open_regular(path, most_bytes);
    char magic[SELFMAG];
    if (file.is_open() && pread(file.descriptor(), magic, SELFMAG, 0) == SELFMAG &&
        memcmp(magic, ELFMAG, SELFMAG) == 0)
        return file;
    return {};
}

Module open_module(const std::string &path) {
    Module module;
    File file = open_elf(path);
    if (!file.is_open())
        return module;
    module.dwfl.reset(dwfl_begin(&callbacks));
    module.module = dwfl_report_offline(module.dwfl.get(), "", path.c_str(), file.descriptor());
    dwfl_report_end(module.dwfl.get(), nullptr, nullptr);
    if (module.module == nullptr)
        return module;
    file.release(); // libdw has it
    dwfl_module_getelf(module.module, &module.bias);
    return module;
}

// In a module, as libdw has laid it out.
struct Place {
    Module &module;
    GElf_Addr address;
};

std::string symbol_at(const Place &place) {
    std::optional<SymbolIndex> &symbols = place.module.symbols;
    if (!symbols)
        symbols.emplace(place.module.module);
    return readable(symbols->name_at(place.address));
}

// Of a file, as the compiler was given it or from the root of the file system.
bool is_of_source(Dwarf_Die *unit, std::string_view pattern) {
    Dwarf_Attribute attribute;
    const char *const name = dwarf_diename(unit);
    const char *const folder = dwarf_formstring(dwarf_attr(unit, DW_AT_comp_dir, &attribute));
    return name != nullptr &&
           (matches_pattern(pattern, name) ||
            (folder != nullptr && matches_pattern(pattern, std::string(folder) + "/" + name)));
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

// The file's own address. Of functions with one name, the one that fits the address in the
// process: modules lie at the start of pages.
std::optional<GElf_Addr> own_address(Module &module, const Pc &pc) {
    constexpr GElf_Addr in_page = 4095;
    if (pc.function.empty())
        return pc.offset;
    if (module.functions.empty())
        list_functions(module);
    const auto [first, last] = module.functions.equal_range(pc.function);
    for (auto candidate = first; candidate != last; ++candidate)
        if (((candidate->second + pc.offset - pc.address) & in_page) == 0)
            return candidate->second + pc.offset;
    return {};
}

// A scope's name as the linker knows it, else as the source has it.
std::string name_of(Dwarf_Die *scope) {
    Dwarf_Attribute attribute;
    for (const unsigned which : {DW_AT_linkage_name, DW_AT_MIPS_linkage_name})
        if (dwarf_attr_integrate(scope, which, &attribute) != nullptr)
            return readable(dwarf_formstring(&attribute));
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

void move_to_call(Dwarf_Die *scope, Dwarf_Die *unit, SourceFrame &frame) {
    Dwarf_Files *files = nullptr;
    size_t count = 0;
    const Dwarf_Word file = number(scope, DW_AT_call_file);
    frame.file.clear();
    if (dwarf_getsrcfiles(unit, &files, &count) == 0 && file < count)
        if (const char *path = dwarf_filesrc(files, file, nullptr, nullptr))
            frame.file = path;
    frame.line = static_cast<int>(number(scope, DW_AT_call_line));
}

// The scopes of such a unit are in a file that it names, and that libdw would open whatever it is.
bool is_split(Dwarf_Die *unit) {
    uint8_t type = 0;
    return dwarf_cu_info(unit->cu, nullptr, &type, nullptr, nullptr, nullptr, nullptr, nullptr) != 0 ||
           type == DW_UT_skeleton;
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
void use_debug_information(const Place &place, std::vector<SourceFrame> &frames) {
    const GElf_Addr address = place.address;
    Dwarf_Addr bias = 0;
    Dwarf_Die *unit = unit_around(place.module.module, address, bias);
    if (unit == nullptr || is_split(unit))
        return;
    SourceFrame frame = frames.back();
    frames.clear();
    if (Dwarf_Line *line = dwarf_getsrc_die(unit, address - bias)) {
        if (const char *path = dwarf_linesrc(line, nullptr, nullptr))
            frame.file = path;
        dwarf_lineno(line, &frame.line);
    }
    const auto known = place.module.units.try_emplace(dwarf_dieoffset(unit), unit).first;
    for (Dwarf_Die &scope : known->second.inlined_at(address - bias)) {
        frames.push_back({name_of(&scope), frame.file, frame.line, true});
        move_to_call(&scope, unit, frame);
    }
    frames.push_back(std::move(frame));
}

} // namespace

struct Symbolizer::Modules {
    std::map<std::string, Module, std::less<>> by_path;
    // By what was asked.
    std::map<std::string, std::vector<SourceFrame>, std::less<>> frames;
    std::map<std::string, std::string, std::less<>> functions;

    Module &at(std::string_view path) {
        constexpr size_t most_modules = 1024;
        const auto found = by_path.find(path);
        if (found != by_path.end())
            return found->second;
        if (by_path.size() == most_modules)
            by_path.clear();
        return by_path.emplace(path, open_module(std::string(path))).first->second;
    }

    std::optional<Place> find(std::string_view text);
    std::vector<SourceFrame> find_frames(std::string_view text);
    std::string find_function(std::string_view text);
};

namespace {

// What is known of a text, remembered up to a bound.
template <class Known, class Find>
const typename Known::mapped_type &remembered(Known &known, std::string_view text, const Find &find) {
    constexpr size_t most_known = 1 << 16;
    const auto found = known.find(text);
    if (found != known.end())
        return found->second;
    if (known.size() == most_known)
        known.clear();
    return known.emplace(text, find(text)).first->second;
}

} // namespace

// Only names of C++: to the demangler, "f" is the type float.
std::string demangled(std::string name) {
    if (!name.starts_with("_Z"))
        return name;
    int status = 0;
    const std::unique_ptr<char, Free> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
    return status == 0 ? text.get() : name;
}

Symbolizer::Symbolizer() : modules_(std::make_unique<Modules>()) {}

Symbolizer::~Symbolizer() = default;

const std::vector<SourceFrame> &Symbolizer::lookup(std::string_view pc) {
    return remembered(modules_->frames, pc,
                      [this](std::string_view text) { return modules_->find_frames(text); });
}

const std::string &Symbolizer::function(std::string_view pc) {
    return remembered(modules_->functions, pc,
                      [this](std::string_view text) { return modules_->find_function(text); });
}

std::optional<Place> Symbolizer::Modules::find(std::string_view text) {
    const Pc pc = parse_pc(text);
    if (pc.module.empty())
        return {};
    Module &module = at(pc.module);
    if (module.module == nullptr)
        return {};
    const std::optional<GElf_Addr> own = own_address(module, pc);
    if (!own)
        return {};
    return Place{module, *own + module.bias - 1}; // in the call, not behind it
}

std::vector<SourceFrame> Symbolizer::Modules::find_frames(std::string_view text) {
    std::vector<SourceFrame> found(1);
    const std::optional<Place> place = find(text);
    if (!place)
        return found;
    found[0].function = symbol_at(*place);
    use_debug_information(*place, found);
    return found;
}

std::vector<CodeRange> Symbolizer::code_of(const std::string &module, std::string_view source) {
    std::vector<CodeRange> ranges;
    Module &known = modules_->at(module);
    Dwarf_Addr bias = 0;
    for (Dwarf_Die *unit = nullptr;
         known.module != nullptr && (unit = dwfl_module_nextcu(known.module, unit, &bias)) != nullptr;) {
        if (!is_of_source(unit, source))
            continue;
        Dwarf_Addr base = 0, begin = 0, end = 0;
        for (ptrdiff_t at = 0; (at = dwarf_ranges(unit, at, &base, &begin, &end)) > 0;)
            ranges.push_back({begin + bias - known.bias, end + bias - known.bias});
    }
    return ranges;
}

CodeSegment Symbolizer::code_segment(std::string_view module) {
    constexpr uint64_t in_page = 4095;
    CodeSegment code;
    const Module &known = modules_->at(module);
    if (known.module == nullptr)
        return code;
    GElf_Addr bias = 0;
    Elf *const elf = dwfl_module_getelf(known.module, &bias);
    size_t count = 0;
    elf_getphdrnum(elf, &count);
    GElf_Phdr header;
    for (size_t i = 0; i < count && gelf_getphdr(elf, static_cast<int>(i), &header) != nullptr; ++i)
        if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
            code.range = {header.p_vaddr & ~in_page,
                          (header.p_vaddr + header.p_memsz + in_page) & ~in_page};
            code.file_offset = header.p_offset & ~in_page;
            break;
        }
    const unsigned char *bytes = nullptr;
    GElf_Addr address = 0;
    const int length = dwfl_module_build_id(known.module, &bytes, &address);
    for (int i = 0; i < length; ++i)
        for (const int digit : {bytes[i] >> 4, bytes[i] & 15})
            code.build_id += "0123456789abcdef"[digit];
    return code;
}

std::string Symbolizer::Modules::find_function(std::string_view text) {
    const std::optional<Place> place = find(text);
    return place ? symbol_at(*place) : std::string();
}

bool is_trace_line(std::string_view line) {
    constexpr size_t longest = 8192; // a path, and the library cuts names to less than another
    return line.size() <= longest && parse_trace_line(line).has_value();
}

std::string describe(std::string_view pc, const SourceFrame &frame) {
    std::string text = frame.function.empty() ? std::string(pc) : frame.function;
    if (!frame.file.empty())
        text += " at " + frame.file + ":" + std::to_string(frame.line);
    else if (!frame.function.empty())
        text += " (" + std::string(pc) + ")";
    return text;
}

CodeAddress code_address(std::string_view pc) {
    const Pc parsed = parse_pc(pc);
    if (!parsed.module.empty() && parsed.function.empty())
        return {parsed.module, parsed.offset};
    std::string_view rest = pc;
    const std::optional<GElf_Addr> address = take_hexadecimal(rest, "0x");
    return address && rest.empty() ? CodeAddress{{}, *address} : CodeAddress{};
}

std::string_view module_of(std::string_view pc) {
    const std::string_view module = parse_pc(pc).module;
    return module.empty() ? pc : module;
}
