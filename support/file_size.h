// Measuring an input file, so a reader can size its buffer and know how many
// bytes a count read from the file may claim.
#pragma once

#include <cstdint>
#include <cstdio>

// 1 with the file's size and the bytes from its current position on, for a
// regular file; 0 for standard input, anything that is not a regular file,
// or a file that cannot be measured.
int file_measure(FILE *file, uint64_t *size, uint64_t *left);
