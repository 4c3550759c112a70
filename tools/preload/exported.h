// The functions that the shim takes the place of: everything else in it is hidden.
#pragma once

#define EXPORTED [[gnu::visibility("default")]]
