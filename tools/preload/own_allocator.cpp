#include "tools/preload/own_allocator.h"

#include "tools/preload/next_heap.h"

#include <k42mc/k42mc.h>

#include <array>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <span>
#include <string.h>

constinit std::atomic<Treatment> treatment = Treatment::undecided;

namespace {

constinit std::atomic<const char *> reason = nullptr;

// Ways to release or resize a block that malloc gave, past free and realloc.
constexpr std::array own_doors = {
    "tc_free", "tc_cfree", "tc_delete",  "tc_realloc", "dallocx",        "sdallocx",     "rallocx",
    "xallocx", "mi_free",  "mi_realloc", "mi_expand",  "tc_deletearray", "tc_free_sized"};

const link_map *module_of(void *address) {
    dl_find_object object;
    return _dl_find_object(address, &object) == 0 ? object.dlfo_link_map : nullptr;
}

// In a program that takes the function's address, that address may be one of a jump to the function.
bool is_defined_in(void *function, const link_map *module) {
    Dl_info info;
    void *entry = nullptr;
    if (module_of(function) != module)
        return false;
    return dladdr1(function, &info, &entry, RTLD_DL_SYMENT) == 0 || entry == nullptr ||
           static_cast<const ElfW(Sym) *>(entry)->st_shndx != SHN_UNDEF;
}

// Of a function that the shim has, too.
bool comes_from_elsewhere(void *function) {
    const link_map *definer = module_of(function);
    return definer != module_of(reinterpret_cast<void *>(module_of)) && is_defined_in(function, definer);
}

bool program_exports_malloc() {
    void *(*const allocating)(size_t) = ::malloc;
    return comes_from_elsewhere(reinterpret_cast<void *>(allocating));
}

// Where the shim is linked in behind the library: the two would share what each has to keep to itself.
bool checker_is_anothers() {
    return comes_from_elsewhere(reinterpret_cast<void *>(MCInit));
}

// What the loader has to bind in a module.
class Bindings {
public:
    explicit Bindings(const dl_phdr_info &module) : base_(module.dlpi_addr) {
        for (int i = 0; i < module.dlpi_phnum; ++i) {
            if (module.dlpi_phdr[i].p_type == PT_DYNAMIC)
                read(reinterpret_cast<const ElfW(Dyn) *>(base_ + module.dlpi_phdr[i].p_vaddr));
        }
    }

    bool ask_for(std::span<const char *const> names) const {
        return ask_for(calls_, names) || ask_for(data_, names);
    }

private:
    struct Table {
        const char *start = nullptr;
        size_t size = 0;
    };

    static constexpr bool is_wide = sizeof(void *) == 8;
    static constexpr long other_table = is_wide ? DT_RELA : DT_REL;
    static constexpr long other_table_size = is_wide ? DT_RELASZ : DT_RELSZ;
    using Relocation = std::conditional_t<is_wide, ElfW(Rela), ElfW(Rel)>;

    void read(const ElfW(Dyn) * entry) {
        for (; entry->d_tag != DT_NULL; ++entry) {
            const char *const address = reinterpret_cast<const char *>(absolute(entry->d_un.d_ptr));
            switch (entry->d_tag) {
            case DT_SYMTAB:
                symbols_ = reinterpret_cast<const ElfW(Sym) *>(address);
                break;
            case DT_STRTAB:
                names_ = address;
                break;
            case DT_JMPREL:
                calls_.start = address;
                break;
            case DT_PLTRELSZ:
                calls_.size = entry->d_un.d_val;
                break;
            case other_table:
                data_.start = address;
                break;
            case other_table_size:
                data_.size = entry->d_un.d_val;
                break;
            }
        }
    }

    // The loader has turned the addresses of most modules into absolute ones.
    uintptr_t absolute(uintptr_t address) const { return address < base_ ? address + base_ : address; }

    bool ask_for(const Table &table, std::span<const char *const> names) const {
        if (table.start == nullptr || symbols_ == nullptr || names_ == nullptr)
            return false;
        const auto *relocations = reinterpret_cast<const Relocation *>(table.start);
        for (const Relocation &relocation : std::span(relocations, table.size / sizeof(Relocation))) {
            const size_t symbol = is_wide ? relocation.r_info >> 31 >> 1 : relocation.r_info >> 8;
            for (const char *name : names) {
                if (symbol != 0 && strcmp(names_ + symbols_[symbol].st_name, name) == 0)
                    return true;
            }
        }
        return false;
    }

    uintptr_t base_;
    const ElfW(Sym) *symbols_ = nullptr;
    const char *names_ = nullptr;
    Table calls_, data_;
};

int asks_for_own_door(dl_phdr_info *module, size_t, void *allocator) {
    return module->dlpi_addr != static_cast<const link_map *>(allocator)->l_addr &&
           Bindings(*module).ask_for(own_doors);
}

bool program_uses_own_doors() {
    const link_map *allocator = module_of(reinterpret_cast<void *>(NEXT(malloc)));
    if (allocator == nullptr || allocator == module_of(reinterpret_cast<void *>(__libc_malloc)))
        return false;
    return dl_iterate_phdr(asks_for_own_door, const_cast<link_map *>(allocator)) != 0;
}

const char *find_reason() {
    if (program_exports_malloc())
        return "it has a malloc of its own";
    if (checker_is_anothers())
        return "another module's functions of the checker's names stand ahead of the shim's";
    if (program_uses_own_doors())
        return "it releases blocks by functions of its allocator's own";
    return nullptr;
}

} // namespace

Treatment decide_treatment() {
    const InsideChecker inside;
    const char *found = find_reason();
    reason.store(found, std::memory_order_relaxed);
    const Treatment decided = found != nullptr ? Treatment::left_alone : Treatment::guarded;
    treatment.store(decided, std::memory_order_release);
    return decided;
}

const char *why_left_alone() {
    return reason.load(std::memory_order_relaxed);
}
