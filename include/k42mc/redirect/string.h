#pragma GCC system_header
#include "k42mc_suspend.h"

#include_next <string.h>

#include "k42mc_resume.h"
