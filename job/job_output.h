// The output file of a run. A regular file (new or existing) is written
// through a temporary file created in its own directory, which replaces it
// only when the run succeeds: a failed or interrupted run leaves the
// previous file as it was. Other targets (devices, pipes, the standard
// output) are written directly. Unbuffered at the stdio level: the format
// streams keep their own buffers, so a write error shows at the write that
// met it, with its errno.
#pragma once

#include <cstdio>
#include <sys/stat.h>

// Opens target for writing. existing is the target's stat when it exists
// (null when not). 1 with *file set; 0 with errno set, nothing created.
int output_open(const char *target, const struct stat *existing, FILE **file);
// Takes the standard output as the output file.
void output_use_stdout(FILE **file);
// Ends the output file opened by output_open or output_use_stdout: flushes,
// makes the data durable (temporary file only) and closes it; then, when
// keep is set and all went well, renames the temporary file over the
// target, else removes it. 1 on success (also when keep is 0 and the file
// was discarded cleanly); 0 with errno set when a write, flush, close or
// rename failed. Without an open output, does nothing and returns 1.
int output_close(int keep);
// What the last failed output_close was doing: "write error" or "rename
// error".
const char *output_failed_step();
