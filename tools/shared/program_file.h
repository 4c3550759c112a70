// What the file of a program says against checking it. A process under the checker asks as well, ahead of becoming that
// program: nothing here allocates.
#pragma once

#include <algorithm>
#include <array>
#include <elf.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

template <class Header_, class Segment_, class Entry_> struct ElfTypes {
    using Header = Header_;
    using Segment = Segment_;
    using Entry = Entry_;
};
using Elf32Types = ElfTypes<Elf32_Ehdr, Elf32_Phdr, Elf32_Dyn>;
using Elf64Types = ElfTypes<Elf64_Ehdr, Elf64_Phdr, Elf64_Dyn>;

// What cannot be read has nothing: it is the system's to complain about.
template <class Types> class ElfFile {
public:
    explicit ElfFile(int file) : file_(file), is_read_(read(header_, 0) && has_segments()) {}

    bool is_static() const {
        return is_read_ &&
               !find_segment([](const Segment &segment) { return segment.p_type == PT_INTERP; });
    }

    // Calls action with the start of the name of each library that it needs, until that returns true.
    template <class Action> bool any_needed(Action action) const {
        uint64_t names = 0;
        return find_entry([&](const Entry &entry) {
                   names = entry.d_un.d_ptr;
                   return entry.d_tag == DT_STRTAB;
               }) &&
               find_entry([&](const Entry &entry) {
                   char name[32] = "";
                   return entry.d_tag == DT_NEEDED &&
                          pread(file_, name, sizeof name - 1, place_of(names + entry.d_un.d_val)) > 0 &&
                          action(static_cast<const char *>(name));
               });
    }

private:
    using Segment = typename Types::Segment;
    using Entry = typename Types::Entry;

    template <class Object> bool read(Object &object, uint64_t place) const {
        return pread(file_, &object, sizeof object, static_cast<off_t>(place)) ==
               static_cast<ssize_t>(sizeof object);
    }

    // As the system has it, which runs no other.
    bool has_segments() const {
        constexpr size_t most_bytes = 1 << 16;
        return header_.e_phentsize == sizeof(Segment) && header_.e_phnum <= most_bytes / sizeof(Segment);
    }

    template <class Condition> bool find_segment(Condition condition) const {
        Segment segment{};
        for (unsigned i = 0; is_read_ && i < header_.e_phnum; ++i)
            if (read(segment, header_.e_phoff + uint64_t{i} * header_.e_phentsize) && condition(segment))
                return true;
        return false;
    }

    template <class Condition> bool find_entry(Condition condition) const {
        return find_segment([&](const Segment &segment) {
            if (segment.p_type != PT_DYNAMIC)
                return false;
            constexpr uint64_t most_bytes = 1 << 18; // or the file is not to be taken at its word
            const uint64_t size = std::min(uint64_t{segment.p_filesz}, most_bytes);
            Entry entry{};
            for (uint64_t at = 0;
                 at < size && read(entry, segment.p_offset + at) && entry.d_tag != DT_NULL;
                 at += sizeof entry)
                if (condition(entry))
                    return true;
            return false;
        });
    }

    // In the file, of an address in the program.
    off_t place_of(uint64_t address) const {
        uint64_t place = 0;
        find_segment([&](const Segment &segment) {
            place = address - segment.p_vaddr + segment.p_offset;
            return segment.p_type == PT_LOAD && address - segment.p_vaddr < segment.p_filesz;
        });
        return static_cast<off_t>(place);
    }

    const int file_;
    typename Types::Header header_{};
    const bool is_read_;
};

// Their runtimes have to come first of all libraries, and bring allocators.
inline bool is_sanitizer(const char *library) {
    static constexpr std::array names = {"libasan.",        "liblsan.",         "libtsan.",
                                         "libhwasan.",      "libclang_rt.asan", "libclang_rt.hwasan",
                                         "libclang_rt.tsan"};
    for (const char *name : names)
        if (strncmp(library, name, strlen(name)) == 0)
            return true;
    return false;
}

inline constexpr const char *brings_sanitizer = "it brings a sanitizer's allocator";

template <class Types> const char *reason_against_elf(int file) {
    const ElfFile<Types> program(file);
    if (program.is_static())
        return "it is linked statically";
    return program.any_needed(is_sanitizer) ? brings_sanitizer : nullptr;
}

// For the superuser, capabilities of a file add nothing.
inline bool has_special_rights(int file) {
    struct stat status;
    if (fstat(file, &status) != 0)
        return false;
    const bool other_user = (status.st_mode & S_ISUID) != 0 && status.st_uid != geteuid();
    const bool other_group = (status.st_mode & S_ISGID) != 0 && status.st_gid != getegid();
    return other_user || other_group ||
           (geteuid() != 0 && fgetxattr(file, "security.capability", nullptr, 0) > 0);
}

// Of a script, its interpreter's. Null for nothing; brings_sanitizer for what cannot even stand the shim.
inline const char *reason_against_file(int file, int most_interpreters = 4) {
    char head[256] = "";
    if (pread(file, head, sizeof head - 1, 0) < EI_NIDENT)
        return nullptr;
    if (strncmp(head, "#!", 2) == 0 && most_interpreters > 0) {
        char *rest = nullptr;
        const char *const interpreter = strtok_r(head + 2, " \t\n", &rest);
        const int next =
            interpreter != nullptr ? open(interpreter, O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
        const char *const reason =
            next >= 0 ? reason_against_file(next, most_interpreters - 1) : nullptr;
        if (next >= 0)
            close(next);
        return reason;
    }
    if (memcmp(head, ELFMAG, SELFMAG) != 0)
        return nullptr;
    const char *const reason = head[EI_CLASS] == ELFCLASS64 ? reason_against_elf<Elf64Types>(file)
                                                            : reason_against_elf<Elf32Types>(file);
    return reason == nullptr && has_special_rights(file) ? "it has special rights" : reason;
}
