/* An executable's own definition of every name that the library exports. None may ever be called. */

#define K42MC_HIDDEN_NAME(name) __asm__(".weak " #name "\n" #name ": ud2\n.type " #name ", @function");

#include "../../common/lib/libk42mc/linkage/hidden_names.h"
