// The lines about allocations and releases that go wrong, on the report sink. With gMCLock held.
#pragma once

#include "base/site.h"

#include <stddef.h>
#include <stdint.h>

namespace k42mc::internal {

// What a site's file is called in lines and records.
const char *name_of(Site site);

void print_failed_allocation(Site site, size_t size);
void print_null_release(Site site);
void print_wrong_type(Site site, uintptr_t address, unsigned allocated, uint16_t released);

// A block that was not recorded, since memory ran out.
void print_lost_record();

} // namespace k42mc::internal
