#include "platform/platform.h"

#include "platform/bytes.h"
#include "platform/module.h"
#include "platform/startup_modules.h"
#include "platform/thread_local_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>

namespace k42mc::internal::platform {
namespace {

struct Line {
    char text[6144]; // a path of 4096 bytes leaves 2000 for the function
    size_t length = 0;

    std::span<char> room() { return std::span(text).subspan(length); }

    void put(const char *bytes) {
        const size_t size = std::min(strlen(bytes), room().size());
        memcpy(room().data(), bytes, size);
        length += size;
    }

    void put_hexadecimal(uintptr_t number) {
        char digits[2 * sizeof number + 1];
        char *first = std::end(digits);
        *--first = '\0';
        do {
            *--first = "0123456789abcdef"[number % 16];
            number /= 16;
        } while (number != 0);
        put("0x");
        put(first);
    }
};

constexpr size_t most_path_bytes = 4096;
constexpr const char *own_executable = "/proc/self/exe";

bool is_executable(const Module &module) {
    const uintptr_t program_headers = getauxval(AT_PHDR);
    return program_headers >= module.begin && program_headers < module.end;
}

// Paths are short as a rule. Returns the length of what there is room for.
size_t fetch_string(uintptr_t from, std::span<char> text) {
    constexpr size_t usual = 128;
    size_t length = 0;
    while (length < text.size()) {
        const auto rest = text.subspan(length, std::min(usual, text.size() - length));
        const size_t got = fetch(own_memory, from + length, rest.data(), rest.size());
        const size_t piece = strnlen(rest.data(), got);
        length += piece;
        if (piece < rest.size())
            break;
    }
    return length;
}

// Puts a module's path, given where the loader has it, and returns its length; `link`: the path was read
// from the link to the executable. Without an interpreter the loader itself was run, by hand, with the
// executable as its argument.
size_t read_path(const Module &module, uintptr_t path, std::span<char> text, bool &link) {
    link = false;
    if (!is_executable(module))
        return fetch_string(path, text);
    if (getauxval(AT_BASE) != 0) {
        const ssize_t length = readlink(own_executable, text.data(), text.size());
        link = length > 0;
        if (link)
            return static_cast<size_t>(length);
    }
    const size_t length = std::min(strlen(program_invocation_name), text.size());
    memcpy(text.data(), program_invocation_name, length);
    return length;
}

// Puts the module's path and opens the file. The link to the executable leads to the file that runs,
// even if it was deleted or another one has its path now.
int put_path(Line &line, const Module &module, uintptr_t path) {
    bool link;
    line.length = read_path(module, path, std::span(line.text, most_path_bytes), link);
    if (link)
        return open(own_executable, O_RDONLY | O_CLOEXEC);
    line.text[line.length] = '\0';
    // A path may lead to a pipe by now: do not wait for its writer.
    return line.length == 0 ? -1 : open(line.text, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

// The call is the byte before its return address: one that never returns may end its function.
void put_place(Line &line, uintptr_t address) {
    Module module;
    uintptr_t path = 0;
    if (!find_module(address - 1, module, path))
        return;
    const int file = put_path(line, module, path);
    if (line.length != 0) {
        line.put("(");
        const auto name = line.room().first(line.room().size() - 64); // the rest of the line
        const NamedPlace function =
            find_named(Named::function, module, file, address - 1 - module.base, name);
        line.length += function.name_length;
        line.put("+");
        line.put_hexadecimal(address - module.base - function.begin);
        line.put(") ");
    }
    if (file >= 0)
        close(file);
}

void put_frame(Line &line, const void *frame) {
    const auto address = reinterpret_cast<uintptr_t>(frame);
    put_place(line, address);
    line.put("[");
    line.put_hexadecimal(address);
    line.put("]\n");
}

} // namespace

void backtrace_symbols_fd(void *const *frames, int count, int descriptor) {
    const int kept_errno = errno;
    for (int i = 0; i < count; ++i) {
        Line line;
        put_frame(line, frames[i]);
        write_all(descriptor, line.text, line.length);
    }
    errno = kept_errno;
}

size_t symbol_line(const void *frame, std::span<char> text) {
    const int kept_errno = errno;
    Line line;
    put_frame(line, frame);
    errno = kept_errno;
    if (line.length > text.size())
        return 0;
    memcpy(text.data(), line.text, line.length);
    return line.length;
}

size_t module_place(const void *address, std::span<char> path, uintptr_t &offset) {
    const int kept_errno = errno;
    const auto place = reinterpret_cast<uintptr_t>(address);
    Module module;
    uintptr_t name = 0;
    size_t length = 0;
    bool link;
    if (find_module(place - 1, module, name)) {
        length = read_path(module, name, path, link);
        offset = place - module.base;
    }
    errno = kept_errno;
    return length;
}

size_t ModulePaths::place(const void *address, std::span<char> path, uintptr_t &offset) {
    const auto place = reinterpret_cast<uintptr_t>(address);
    LoadedModule loaded;
    if (!find_loaded(place - 1, loaded))
        return 0;
    for (const Known &known : known_)
        if (known.length != 0 && loaded == LoadedModule{known.begin, known.end, known.record}) {
            offset = place - known.base;
            const size_t length = std::min(known.length, path.size());
            memcpy(path.data(), known.path, length);
            return length;
        }
    const int kept_errno = errno;
    Module module = {};
    uintptr_t name = 0;
    size_t length = 0;
    bool link;
    if (read_module(loaded, module, name)) {
        length = read_path(module, name, path, link);
        offset = place - module.base;
    }
    errno = kept_errno;
    Known &known = known_[next_++ % std::size(known_)];
    known = {loaded.begin,
             loaded.end,
             loaded.record,
             module.base,
             length <= sizeof known.path ? length : 0,
             {}};
    memcpy(known.path, path.data(), known.length);
    return length;
}

namespace {

// Of what lies at a place in the module that is mapped at an address.
NamedPlace name_at(Named kind, uintptr_t address, const uintptr_t *place, std::span<char> name) {
    const int kept_errno = errno;
    Module module;
    Line line;
    uintptr_t path = 0;
    NamedPlace found = {};
    if (find_module(address, module, path)) {
        const int file = put_path(line, module, path);
        found = find_named(kind, module, file, place != nullptr ? *place : address - module.base, name);
        if (file >= 0)
            close(file);
        if (place == nullptr)
            found = {found.name_length, found.begin + module.base, found.end + module.base};
    }
    errno = kept_errno;
    return found;
}

} // namespace

size_t function_name(const void *address, std::span<char> name) {
    return name_at(Named::function, reinterpret_cast<uintptr_t>(address) - 1, nullptr, name).name_length;
}

Variable variable_at(uintptr_t address, std::span<char> name) {
    const NamedPlace found = name_at(Named::variable, address, nullptr, name);
    return {found.name_length, found.begin, found.end};
}

Variable thread_local_variable_at(uintptr_t address, uintptr_t control_block, std::span<char> name) {
    const int kept_errno = errno;
    ThreadLocalPlace place;
    NamedPlace found = {};
    if (find_thread_local_place(address, control_block, place)) {
        found = name_at(Named::thread_local_variable, place.module, &place.offset, name);
        const uintptr_t block = address - place.offset;
        found = {found.name_length, found.begin + block, found.end + block};
    }
    errno = kept_errno;
    return {found.name_length, found.begin, found.end};
}

// What was loaded with the program stays in any case. Once the loader has begun to take all down, a call would have it
// initialise all anew.
void stay_loaded() {
    dl_find_object found;
    if (_dl_find_object(reinterpret_cast<void *>(&stay_loaded), &found) == 0 &&
        !is_startup_module(found.dlfo_link_map))
        dlopen(found.dlfo_link_map->l_name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

} // namespace k42mc::internal::platform
