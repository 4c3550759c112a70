// k42mc run --page-guards
// Programs that set themselves limits, and get what they would get without the checker.
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

namespace {

constexpr rlim_t mega = 1 << 20;

bool can_have(size_t bytes) {
    char *volatile block = static_cast<char *>(malloc(bytes));
    const bool has = block != nullptr;
    free(block);
    return has;
}

bool limits(int what, rlim_t bytes) {
    rlimit limit{};
    if (getrlimit(what, &limit) != 0)
        return false;
    limit.rlim_cur = bytes;
    return setrlimit(what, &limit) == 0;
}

} // namespace

int main(int count, char **arguments) {
    if (count > 1)
        return can_have(600 * mega) ? 0 : 1;
    if (!limits(RLIMIT_DATA, 64 * mega) || !can_have(20 * mega) || !limits(RLIMIT_DATA, RLIM_INFINITY) ||
        !limits(RLIMIT_AS, 1024 * mega))
        return 2;
    char again[] = "again";
    char *const arguments_then[] = {arguments[0], again, nullptr};
    execv(arguments[0], arguments_then);
    return 3;
}
