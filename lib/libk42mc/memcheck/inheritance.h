// What a forked child has from its parent, which it leaves to that: its searches and checks need not look at memory that is
// as it was then.
#pragma once

namespace k42mc::internal {

// In the child, and in a process once it has a child itself.
void begin_inheritance();
void end_inheritance();

// Whether the process was forked, and pages that others have as well are its parent's: the calling thread, and so any if
// there is no other, has no children that could have got them from it.
bool is_heir();

} // namespace k42mc::internal
