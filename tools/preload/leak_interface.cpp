// The functions by which programs talk to the compilers' leak checker, as its public header <sanitizer/lsan_interface.h>
// declares them, in terms of ours. A program that has that checker in it is left alone, and its calls go on to it.
#include "tools/preload/leak_interface.h"

#include "tools/preload/depth.h"
#include "tools/preload/exported.h"
#include "tools/preload/next.h"
#include "tools/preload/own_allocator.h"
#include "tools/preload/session.h"

#include <k42mc/extra.h>

extern "C" {

// The program's own, if it has them.
EXPORTED [[gnu::weak]] const char *__lsan_default_suppressions();
EXPORTED [[gnu::weak]] int __lsan_is_turned_off();

EXPORTED void __lsan_ignore_object(const void *object);
EXPORTED void __lsan_register_root_region(const void *begin, size_t size);
EXPORTED void __lsan_unregister_root_region(const void *begin, size_t size);
EXPORTED void __lsan_disable();
EXPORTED void __lsan_enable();
EXPORTED void __lsan_do_leak_check();
EXPORTED int __lsan_do_recoverable_leak_check();
}

ProgramsWishes ask_program() {
    return {__lsan_default_suppressions != nullptr ? __lsan_default_suppressions() : nullptr,
            __lsan_is_turned_off != nullptr && __lsan_is_turned_off() != 0};
}

// Ours; for a program that is left alone, its own checker's where it has one.
#define DO_OR_PASS_ON(function, arguments, ours)                                                        \
    if (!program_is_left_alone())                                                                       \
        (ours);                                                                                         \
    else if (auto *const others = NEXT(function))                                                       \
        others arguments;

void __lsan_ignore_object(const void *object) {
    DO_OR_PASS_ON(__lsan_ignore_object, (object), k42mcx_keep(object))
}

void __lsan_register_root_region(const void *begin, size_t size) {
    const InsideChecker inside;
    DO_OR_PASS_ON(__lsan_register_root_region, (begin, size), k42mcx_root(begin, size))
}

void __lsan_unregister_root_region(const void *begin, size_t size) {
    const InsideChecker inside;
    DO_OR_PASS_ON(__lsan_unregister_root_region, (begin, size), k42mcx_unroot(begin, size))
}

void __lsan_disable() {
    DO_OR_PASS_ON(__lsan_disable, (), k42mcx_unlisted(1))
}

void __lsan_enable() {
    DO_OR_PASS_ON(__lsan_enable, (), k42mcx_unlisted(0))
}

void __lsan_do_leak_check() {
    DO_OR_PASS_ON(__lsan_do_leak_check, (), report_leaks(true))
}

int __lsan_do_recoverable_leak_check() {
    if (!program_is_left_alone())
        return report_leaks(false);
    auto *const others = NEXT(__lsan_do_recoverable_leak_check);
    return others != nullptr ? others() : 0;
}
