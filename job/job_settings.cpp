#include "job/job_settings.h"

#include <cstring>

JobSettings job;
int64_t gap_total;

const char *const JOB_PROGRAM_NAME = "laytran";
const char *const JOB_ID = "LAYTRAN 3.0a";

void job_reset() {
    memset(&job, 0, sizeof job);
    job.in = stdin;
    job.out = stdout;
    job.verbosity = 3;
    gap_total = 0;
}
