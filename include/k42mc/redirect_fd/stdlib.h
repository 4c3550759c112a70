#pragma GCC system_header
#include "k42mc_fd_suspend.h"

#include_next <stdlib.h>

#include "k42mc_fd_resume.h"
