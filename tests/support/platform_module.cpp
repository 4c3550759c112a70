// A module to load, strip, damage and delete: a static and an exported function in a trace.

static volatile int calls; // what is done after a call keeps it from being a jump

[[gnu::noinline]] static void hidden_in_module(void (*hook)()) {
    hook();
    calls = calls + 1;
}

extern "C" void exported_by_module(void (*hook)()) {
    hidden_in_module(hook);
    calls = calls + 1;
}

// A second name that comes first in the table; the exported one says more.
extern "C" {
[[gnu::alias("exported_by_module"), gnu::used]] static void local_name(void (*hook)());
}
