// Allocations of the program that fail on purpose, as the environment chooses them.
#pragma once

void choose_failures();

// Ahead of the last report: how many more there were than were told of.
void sum_up_failures();

// Whether a call for a new descriptor is to fail; then with EMFILE in errno.
bool descriptor_fails(const char *function);
