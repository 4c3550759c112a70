/* For a source that switches _FORTIFY_SOURCE on itself; redirect_fd.h says why it goes. */
#pragma GCC system_header
#undef _FORTIFY_SOURCE
#include_next <features.h>
