#pragma once

// Whether a call comes from an operator new or delete here, on the way to one that the program has of its own.
// That one's call of malloc or free can appear to come from here: a compiler makes a jump of a last call.
bool leads_to_programs_operator(const void *caller);
