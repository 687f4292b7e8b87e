// The run sequence: one whole translation, returning the exit status.
#pragma once

// 0 when the run completed (also after an option error), -1 when it failed.
int run_job(int argc, char **argv);
