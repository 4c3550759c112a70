// k42mc run
// A program that releases blocks of malloc past free, by a function of its allocator's own: none has guards, and
// the report says that nobody looked.
#include "modules/allocator.h"
#include "report_of_process.h"

#include <cstdlib>

int main() {
    tc_free(malloc(10));
    return !is_left_alone();
}
