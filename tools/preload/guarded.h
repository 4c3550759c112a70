// Telling the checker's blocks from libc's.
#pragma once

// Whether a block's header is that of a live or of a released guarded block. What libc allocated for the
// checker, or ahead of it, is neither, and goes back to libc.
bool is_guarded(const void *user);
bool was_guarded(const void *user);
