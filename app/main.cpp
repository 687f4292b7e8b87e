// Program entry: hands the process's own argument vector to the run.
#include "app/run_job.h"

int main(int argc, char **argv) { return run_job(argc, argv); }
