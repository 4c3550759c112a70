// The functions of libc that open and close descriptors, reported to the descriptor checker.
#pragma once

void watch_descriptors();
bool descriptors_watched();
