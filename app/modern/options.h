// What the subcommands share: their help, the message level, the
// progress setting and the facts about a model.
#pragma once

#include <string>
#include <vector>

#include "app/modern/args.h"
#include "app/modern/console.h"
#include "laytran/summary.h"

namespace laytran::modern {

// Prints `laytran help NAME` on standard output; the exit status.
int print_help(const char *name, Console &console);
// --quiet and --verbose (not both).
void set_level(const Args &args, Console &console);
// --progress auto|always|never (auto when not given).
ProgressBar::When progress_when(const Args &args);

// What the subcommands that read one FILE take alike: the message level
// (set on the console), --from (checked; null when not given) and
// --progress.
struct Reading {
    const std::string *from;
    ProgressBar::When when;
};
Reading reading_options(const Args &args, Console &console);

// The facts `laytran info` prints about a model (but the file's name), in
// its order; `header`: with the header fields it shows (units, version,
// date, labels, dimension).
struct Fact {
    std::string key, value;
};
std::vector<Fact> summary_facts(const Summary &summary, bool header);

} // namespace laytran::modern
