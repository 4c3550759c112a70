// What stands for a source file where nobody passed one.
#pragma once

// "libfoo.so.1+0x1a2b" for a return address: one string for each, kept for good. Takes no lock.
const char *site_of(const void *caller);
