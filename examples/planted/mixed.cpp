// A buffer comes from new[] and goes to free.
#include <cstdio>
#include <cstdlib>
#include <cstring>

static char *shout(const char *text) {
    char *louder = new char[std::strlen(text) + 2];
    std::strcpy(louder, text);
    return std::strcat(louder, "!");
}

int main() {
    char *text = shout("hello");
    std::puts(text);
    std::free(text);
}
