// The checker of this process, from the first constructor to behind the last destructor.
#pragma once

// Whether a return address lies in the checker or in the shim around it.
bool called_by_checker(const void *caller);
