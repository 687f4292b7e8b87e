// Option handling and file naming: fills the job-settings record from the
// command line, chooses the formats and opens both files.
#pragma once

#include <cstdio>

#include "job/job_settings.h"

// Scans the options, then runs the verbosity step, the file resolution and
// the output-unit check. 1 when the job may run; 0 after an error whose
// message is printed; -1 when the file resolution refused the output. -H
// prints the help text and ends the process with 0.
int job_parse_options(int argc, char **argv, JobSettings *settings);

// The size in millimetres of the first unit word that begins with word
// (case ignored): 1 and the factor, or 0 when no word matches.
int unit_word_factor(const char *word, double *factor);

// Default verbosity, the id lines at verbosity 1 and 2, then the fixed
// program name. 0 for a negative verbosity.
int job_finish_verbosity(JobSettings *settings);
// Refuses -U values the chosen output format cannot hold (SLC: 1 or 25.4,
// FDM: 25.4).
int job_check_output_units(JobSettings *settings);

// The -F and -O letters; 0 (with the message) at the first unknown letter,
// the letters before it staying applied.
int parse_input_format(JobSettings *settings, const char *letters);
int parse_output_format(JobSettings *settings, const char *letters);

// Chooses the formats from the file extensions where no option chose them,
// opens both files (or takes the standard streams) and forces positive
// coordinates for the output variants that need them. 1 when the job may
// run; 0 after an error that ends the run like an option error; -1 after
// refusing an output that cannot be written without harm (a directory, the
// input file itself), which fails the run.
int job_resolve_files(JobSettings *settings);
// Opens name for reading, trying it with default_ext when it cannot be
// opened as it is. On success *handle is the open file and *path the opened
// name (owned); 0 after the message.
int job_open_input(const char *name, const char *default_ext, FILE **handle, char **path);
// Opens the output file named name: with default_ext added where the name
// has none, unless name is an existing device or pipe. 1 with *handle and
// *path (owned) set; 0 after a failed open; -1 when name is a directory or
// the file input is open on (the message printed in each case).
int job_open_output(const char *name, const char *default_ext, FILE *input, FILE **handle,
                    char **path);
// Replaces the owned path text *path with a copy of text; 0 after the
// memory message. job_free_path releases it and leaves null.
int job_set_path(char **path, const char *text);
void job_free_path(char **path);
// The extension of name starting at its dot, or null. Only '/' separates
// directories.
const char *file_extension(const char *name);
// name with ext appended when it has no extension, else a copy of name;
// owned (job_free_path), or null after the memory message.
char *job_name_with_extension(const char *name, const char *ext);
