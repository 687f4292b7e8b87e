// Single-letter command-line option scanner.
//
// Options come first, each introduced by '-'; letters may be clustered; a
// letter followed by ':' in the letter string takes an argument; scanning
// stops at the first argument that is not an option. The scanner prints its
// own diagnostics, beginning with argv[0].
#pragma once

extern int opt_index;        // next argument to scan (starts at 1)
extern const char *opt_arg;  // argument of the letter just returned
extern int opt_letter;       // option character just scanned

// The letter found, '?' after an error (message written), -1 at the end.
int opt_next(int argc, char *const argv[], const char *letters);
// Puts the scanner back to its start-up state (a new scan of a new vector).
void opt_reset();
