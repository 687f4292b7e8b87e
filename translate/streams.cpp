#include <cstdio>
#include <cstring>

#include "job/job_settings.h"
#include "support/mm.h"
#include "translate/translate.h"

// Placeholder until the format modules are joined in: no streams yet.
int streams_open() { return 1; }

int streams_check() { return 1; }

static void release_path(char *&path) {
    if (path) mm_free(path, strlen(path) + 1, 0);
    path = nullptr;
}

void streams_close() {
    release_path(job.in_path);
    release_path(job.out_path);
    if (job.in) fclose(job.in);
    if (job.out) fclose(job.out);
    job.in = nullptr;
    job.out = nullptr;
}

int translate_job() { return 1; }
