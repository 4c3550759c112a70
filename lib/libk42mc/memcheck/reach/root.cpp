#include "memcheck/reach/root.h"

#include "platform/full_walk.h"
#include "platform/module.h"
#include "platform/signal_context.h"
#include "platform/stack.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace k42mc::internal {
namespace {

// ---- What it is ----

struct Thread {
    uint32_t number;
    uintptr_t control_block;
    platform::Registers registers;
};

std::span<char> room_for_name(Root &root) {
    return std::span(root.name).first(sizeof root.name - 1); // zeros
}

platform::Mapping mapping_at(uintptr_t address) {
    platform::MemoryMap map;
    for (platform::Mapping mapping; map.next(mapping);)
        if (address >= mapping.begin && address < mapping.end)
            return mapping;
    return {};
}

// With thread-local memory of the modules that were there at the start.
bool is_beside_control_block(uintptr_t at, uintptr_t control_block) {
    constexpr uintptr_t control_block_bytes = 2048;
    const uintptr_t below = platform::thread_local_bytes();
    return at - (control_block - below) < below + control_block_bytes;
}

void describe_thread_local(Root &root, const Thread &thread) {
    root.kind = Root::Kind::thread_local_memory;
    const platform::Variable variable =
        platform::thread_local_variable_at(root.at, thread.control_block, room_for_name(root));
    root.range = {variable.begin, variable.end};
}

// Whether the pointer lies in the thread's memory.
bool describe(Root &root, const platform::Mapping &mapping, const Thread &thread) {
    const platform::StackMemory stack = platform::stack_memory_of(thread.control_block);
    const bool is_first = stack.end == 0;
    root.thread = thread.number;
    const bool is_beside = is_beside_control_block(root.at, thread.control_block);
    if (is_first && is_beside && thread.control_block - mapping.begin < mapping.end - mapping.begin) {
        describe_thread_local(root, thread);
        return true;
    }
    if (is_first ? !mapping.is_first_stack : root.at < stack.begin || root.at >= stack.end)
        return false;
    const platform::FrameSearch found = platform::find_frame(thread.registers, root.at);
    if (!is_first && is_beside && found.place == 0 && root.at >= found.walked_to) {
        describe_thread_local(root, thread);
    } else {
        root.kind = Root::Kind::stack;
        if (found.place != 0)
            platform::function_name(reinterpret_cast<void *>(found.place), room_for_name(root));
    }
    return true;
}

// Whether it does in that of any.
bool describe_in_thread(Root &root, const platform::Mapping &mapping, const Moment &moment) {
    if (describe(root, mapping, {0, moment.caller.control_block, moment.caller.registers}))
        return true;
    for (const platform::StoppedThread &thread : moment.threads)
        if (thread.context != nullptr &&
            describe(root, mapping,
                     {thread.id, thread.control_block, platform::registers_of(thread.context)}))
            return true;
    root.thread = 0;
    return false;
}

void describe_memory(Root &root, const Moment &moment) {
    if (root.at - moment.handed.begin < moment.handed.end - moment.handed.begin) {
        root.kind = Root::Kind::handed;
        return;
    }
    const platform::Mapping mapping = mapping_at(root.at);
    if (describe_in_thread(root, mapping, moment))
        return;
    platform::Module module;
    uintptr_t path;
    if (!platform::find_module(root.at, module, path) || !platform::has_segment_at(module, root.at)) {
        root.kind = Root::Kind::mapping;
        root.range = {mapping.begin, mapping.end};
        return;
    }
    const platform::Variable variable = platform::variable_at(root.at, room_for_name(root));
    const bool is_known = variable.name_length != 0;
    root.kind = is_known ? Root::Kind::variable : Root::Kind::module;
    root.range = is_known ? Range{variable.begin, variable.end} : Range{module.begin, module.end};
}

// ---- What it is called ----

// The last part of a module's path, and where in it something lies.
struct ModulePlace {
    explicit ModulePlace(uintptr_t at) {
        const size_t length = platform::module_place(reinterpret_cast<void *>(at + 1), path, behind);
        const void *const slash = memrchr(path, '/', length);
        name = slash == nullptr ? path : static_cast<const char *>(slash) + 1;
        width = static_cast<int>(path + length - name);
    }

    unsigned long offset() const { return behind - 1; }

    char path[4096];
    const char *name;
    int width;
    uintptr_t behind = 1;
};

[[gnu::format(printf, 2, 3)]] void append(std::span<char> text, const char *format, ...) {
    const size_t length = strlen(text.data());
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text.data() + length, text.size() - length, format, arguments);
    va_end(arguments);
}

} // namespace

bool Root::is_around(const Origin &origin) const {
    return origin.kind == Origin::Kind::memory && origin.at - range.begin < range.end - range.begin;
}

bool Root::is_as_good_as(const Root &other) const {
    return kind == other.kind && thread == other.thread && range.begin == other.range.begin &&
           strcmp(name, other.name) == 0;
}

void Root::put(std::span<char> text, bool several, const char *asking_thread) const {
    char owner[64];
    if (thread == 0)
        snprintf(owner, sizeof owner, "%s", asking_thread);
    else
        snprintf(owner, sizeof owner, "thread %u", thread);
    text[0] = '\0';
    switch (kind) {
    case Kind::variable: {
        const ModulePlace place(at);
        append(text, "variable `%s` in %.*s+0x%lx", name, place.width, place.name, place.offset());
        return;
    }
    case Kind::module: {
        const ModulePlace place(at);
        if (several)
            append(text, "data of %.*s", place.width, place.name);
        else
            append(text, "%.*s+0x%lx", place.width, place.name, place.offset());
        return;
    }
    case Kind::mapping:
        if (!several)
            append(text, "memory at 0x%lX in ", static_cast<unsigned long>(at));
        append(text, "a mapping of %zu KiB", (range.end - range.begin) >> 10);
        return;
    case Kind::stack:
        append(text, "stack of %s", owner);
        if (name[0] != '\0')
            append(text, ", frame `%s`", name);
        return;
    case Kind::thread_local_memory:
        if (name[0] != '\0')
            append(text, "thread-local `%s` of %s", name, owner);
        else
            append(text, "thread-local memory of %s", owner);
        return;
    case Kind::one_register:
        return append(text, "%s of %s", register_name, owner);
    case Kind::handed:
        return append(text, "an epoll instance's data or a timer's value");
    case Kind::kept:
        return append(text, "the program's request to keep it");
    case Kind::moving:
        return append(text, "a thread that is moving it");
    }
}

void describe_root(const Origin &origin, const Moment &moment, Root &root) {
    root = {};
    root.at = origin.at;
    switch (origin.kind) {
    case Origin::Kind::kept:
        root.kind = Root::Kind::kept;
        break;
    case Origin::Kind::moving:
    case Origin::Kind::inherited: // which is not noted
        root.kind = Root::Kind::moving;
        break;
    case Origin::Kind::caller:
        root.kind = Root::Kind::one_register;
        root.register_name = platform::register_name(static_cast<int>(origin.at));
        break;
    case Origin::Kind::thread: {
        const platform::StoppedThread &thread = moment.threads[origin.holder];
        root.kind = Root::Kind::one_register;
        root.thread = thread.id;
        root.register_name = platform::saved_register_name(thread.context, origin.at);
        break;
    }
    case Origin::Kind::memory:
    case Origin::Kind::block:
        describe_memory(root, moment);
        break;
    }
}

} // namespace k42mc::internal
