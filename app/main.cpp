// Program entry: creates the (hidden) progress window and hands the
// process's own argument vector to the run, whose result is the exit status.
#include "app/progress.h"
#include "app/run_job.h"

int main(int argc, char **argv) {
    progress_create();
    return run_job(argc, argv);
}
