#include "app/run_job.h"

// Placeholder until the run sequence lands.
int run_job(int, char **) { return 0; }
