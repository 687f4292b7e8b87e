// Splitting one command-line text into an argument vector.
#pragma once

// Entry 0 is "laytran", then the words of text, then a null entry. Words
// are separated by spaces; double quotes group spaces into a word and never
// become part of it. 1 on success, 0 when memory runs out (nothing is kept).
int split_command_line(const char *text, int *argc, char ***argv);
// Releases a vector made by split_command_line.
void free_command_line(int argc, char **argv);
