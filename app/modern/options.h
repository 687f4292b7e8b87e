// What the subcommands share: their help, the message level and the
// progress setting.
#pragma once

#include "app/modern/args.h"
#include "app/modern/console.h"

namespace laytran::modern {

// Prints `laytran help NAME` on standard output; the exit status.
int print_help(const char *name, Console &console);
// --quiet and --verbose (not both).
void set_level(const Args &args, Console &console);
// --progress auto|always|never (auto when not given).
ProgressBar::When progress_when(const Args &args);

} // namespace laytran::modern
