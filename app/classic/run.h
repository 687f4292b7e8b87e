// The classic run sequence: one whole translation from the classic command
// line, returning the exit status.
#pragma once

#include <string>
#include <vector>

namespace laytran::classic {

// 0 when the run completed (also after an option error or -H), -1 when it
// failed or refused its output.
int run(int argc, char **argv);

// The argument vector of a command-line text, as the Windows entry builds
// it: entry 0 is "laytran", then the words of text. Words are separated by
// spaces; double quotes group spaces into a word and never become part of
// it (a quote that ends a group also ends the word).
std::vector<std::string> split_command_line(const char *text);

} // namespace laytran::classic
