// k42mc run
// A module that is bound to its own libraries first gets blocks to release, and gives some. It finds another one in
// the folders that it names itself.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

int main() {
    void *const module = dlopen(BOUND_DEEPLY, RTLD_NOW | RTLD_DEEPBIND);
    if (module == nullptr)
        return 1;
    const auto take_and_give = reinterpret_cast<char *(*)(char *)>(dlsym(module, "take_and_give"));
    const auto finds_neighbour = reinterpret_cast<bool (*)()>(dlsym(module, "finds_neighbour"));
    char *const copy = take_and_give(strdup("text"));
    const bool same = strcmp(copy, "text") == 0;
    free(copy);
    if (!same || !finds_neighbour())
        return 1;
    void *const apart = dlmopen(LM_ID_BASE, BOUND_DEEPLY, RTLD_NOW | RTLD_DEEPBIND);
    return apart != module;
}
