#include "app/run_job.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "app/progress.h"
#include "job/job.h"
#include "job/job_output.h"
#include "support/alarm.h"
#include "support/mm.h"
#include "support/run_timer.h"
#include "translate/translate.h"

namespace {

const char COMPLETED_TEXT[] = "Slice file conversion completed. Please check the log file";
const char FAILED_TEXT[] = "Slice file conversion failed. Please check the log file";

void report_gaps() {
    if (!(job.flags[0] & JOB_IN_SLC) || job.verbosity < 1 || job.verbosity > 6) return;
    if (gap_total != 0) {
        fprintf(stderr, "%s(info): input file contains %" PRId64 " gap(s)\n", job.program_name,
                gap_total);
    } else {
        fprintf(stderr, "%s(info): input file contains no gaps\n", job.program_name);
    }
}

} // namespace

int run_job(int argc, char **argv) {
    RunTimer timer;
    memset(&timer, 0, sizeof timer);
    run_timer_start(&timer, nullptr);
    job_reset();
    job.program_name = argc > 0 && argv && argv[0] ? argv[0] : JOB_PROGRAM_NAME;

    // An option error ends the run here with status 0: no streams, no report.
    // An output file opened before it is not kept.
    int parsed = job_parse_options(argc, argv, &job);
    if (parsed <= 0) {
        output_close(0);
        return parsed < 0 ? -1 : 0;
    }

    progress_begin("LAYTRAN");
    progress_set_text(1, "Translating...");
    progress_set_text(2, "");
    if (job.flags[3] & JOB_NO_WINDOW) {
        progress_suppress(1);
    } else {
        progress_show();
    }
    alarm_init(job.program_name);

    int status = -1;
    if (streams_open()) status = translate_job() ? 0 : -1;
    streams_close();
    // A Stop pressed during the run turns a completed run into a failed one.
    if (status == 0 && !progress_pump()) status = -1;
    // Only a completed run replaces the output file.
    if (!output_close(status == 0)) {
        fprintf(stderr, "%s: error writing output file (%s: %s)\n", job.program_name,
                output_failed_step(), sys_error_text(errno));
        status = -1;
    }

    report_gaps();
    run_timer_stop(&timer, nullptr);
    report_total_time(&timer);
    alarm_done();

    if (job.flags[3] & JOB_NO_MESSAGE_BOX) return status;
    progress_hide();
    progress_suppress(0);
    progress_message_box(status == 0 ? COMPLETED_TEXT : FAILED_TEXT);
    return status;
}
