#include "tools/preload/started_program.h"

#include "tools/shared/program_file.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

namespace {

constexpr char preload[] = "LD_PRELOAD=";
constexpr size_t name_size = sizeof preload - 1;

// Behind the shim, which stands first; null for a variable without it.
const char *behind_shim(const char *variable) {
    if (strncmp(variable, preload, name_size) != 0)
        return nullptr;
    const char *const first = variable + name_size;
    const char *const end = first + strcspn(first, ": ");
    const char *const shim = strstr(first, "/libk42mc_preload.so");
    return shim != nullptr && shim < end ? end + (*end != '\0' ? 1 : 0) : nullptr;
}

int open_to_read(const char *path) {
    return open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

// As execvp looks for it.
int open_in_path(const char *name) {
    const char *folders = getenv("PATH");
    if (folders == nullptr)
        folders = "/bin:/usr/bin";
    for (;; ++folders) {
        char path[PATH_MAX];
        const auto size = static_cast<int>(strcspn(folders, ":"));
        const int length =
            snprintf(path, sizeof path, "%.*s%s%s", size, folders, size > 0 ? "/" : "", name);
        if (length < PATH_MAX && access(path, X_OK) == 0)
            return open_to_read(path);
        folders += size;
        if (*folders == '\0')
            return -1;
    }
}

} // namespace

const char *reason_against_program(const char *name, Search search) {
    const bool is_searched = search == Search::path && strchr(name, '/') == nullptr;
    const int file = is_searched ? open_in_path(name) : open_to_read(name);
    if (file < 0)
        return nullptr;
    const char *const reason = reason_against_file(file);
    close(file);
    return reason;
}

bool bring_shim(char *const *variables) {
    for (; variables != nullptr && *variables != nullptr; ++variables)
        if (behind_shim(*variables) != nullptr)
            return true;
    return false;
}

WithoutShim::WithoutShim(char *const *variables) : variables_(variables) {
    for (; variables[count_] != nullptr; ++count_)
        if (const char *rest = behind_shim(variables[count_]))
            line_bytes_ = sizeof preload + strlen(rest);
}

char *const *WithoutShim::make(void *place) const {
    auto **const kept = static_cast<char **>(place);
    auto *const line = reinterpret_cast<char *>(kept + count_ + 1);
    char **next = kept;
    for (size_t i = 0; i < count_; ++i) {
        const char *const rest = behind_shim(variables_[i]);
        if (rest == nullptr) {
            *next++ = variables_[i];
        } else if (*rest != '\0') {
            *next++ = line;
            strcpy(stpcpy(line, preload), rest);
        }
    }
    *next = nullptr;
    return kept;
}
