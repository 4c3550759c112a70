// A program with some operators of its own, which the other forms have to lead to.
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t header = 16;

} // namespace

void *operator new(std::size_t size) {
    auto *memory = static_cast<char *>(std::malloc(size + header));
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory + header;
}

void operator delete(void *block) noexcept {
    if (block != nullptr)
        std::free(static_cast<char *>(block) - header);
}

int main() {
    int *volatile one = new (std::nothrow) int;
    operator delete(one, sizeof(int));
    int *volatile many = new int[10];
    delete[] many;
    double *volatile mixed = new double;
    operator delete(mixed, std::nothrow);
}
