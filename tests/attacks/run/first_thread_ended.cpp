// k42mc run
// The process ends by another thread than the first, which has ended before; it has as small a stack as there are.
#include <cstdlib>
#include <pthread.h>

namespace {

void *volatile lost;
pthread_t first;

void *end(void *) {
    pthread_join(first, nullptr);
    lost = malloc(100);
    lost = nullptr;
    exit(0);
}

} // namespace

int main() {
    first = pthread_self();
    pthread_t other;
    pthread_attr_t smallest;
    pthread_attr_init(&smallest);
    pthread_attr_setstacksize(&smallest, 16384);
    if (pthread_create(&other, &smallest, end, nullptr) != 0)
        return 1;
    pthread_exit(nullptr);
}
