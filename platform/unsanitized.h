// For functions that look at memory which is none of their caller's business: sanitizers keep out.
#pragma once

#define K42MC_UNSANITIZED __attribute__((no_sanitize("address", "thread", "undefined")))
