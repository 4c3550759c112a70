// A module that is opened so that its own libraries come first. Another one lies where only it looks.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

extern "C" char *take_and_give(char *block) {
    char *const copy = strdup(block);
    free(block);
    return copy;
}

extern "C" bool finds_neighbour() {
    return dlopen("libattack_module_neighbour.so", RTLD_NOW) != nullptr;
}
