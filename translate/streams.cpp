// Creation, error report and tear-down of the run's two format streams.
#include <cstdint>
#include <cstdio>

#include "formats/cli/cli.h"
#include "formats/fdm/fdm.h"
#include "formats/slc/slc.h"
#include "job/job.h"
#include "job/job_settings.h"
#include "support/mm.h"
#include "translate/translate.h"

namespace {

int failed_to(const char *what) {
    fprintf(stderr, "%s: failed to %s.\n", job.program_name, what);
    return 0;
}

void *int_option(intptr_t value) {
    return reinterpret_cast<void *>(value);
}

const char *input_error_text(int *system_error) {
    if (job.flags[0] & JOB_IN_CLI) {
        *system_error = cli_stream_system_error(job.cli_in);
        return job.cli_in ? cli_stream_error_text(job.cli_in) : nullptr;
    }
    if (job.flags[0] & JOB_IN_SLC) {
        *system_error = slc_stream_system_error(job.slc_in);
        return job.slc_in ? slc_stream_error_text(job.slc_in) : nullptr;
    }
    *system_error = fdm_stream_system_error(job.fdm_in);
    return job.fdm_in ? fdm_stream_error_text(job.fdm_in) : nullptr;
}

int output_system_error() {
    if (job_out_is_cli(job)) return cli_stream_system_error(job.cli_out);
    if (job.flags[1] & JOB_OUT_SLC) return slc_stream_system_error(job.slc_out);
    return fdm_stream_system_error(job.fdm_out);
}

// The stream's text, and the system's where a system call failed.
void report(const char *what, const char *text, int system_error) {
    if (system_error != 0) {
        fprintf(stderr, "%s: error %s file (%s: %s)\n", job.program_name, what, text,
                sys_error_text(system_error));
    } else {
        fprintf(stderr, "%s: error %s file (%s)\n", job.program_name, what, text);
    }
}

} // namespace

const char *streams_output_error_text() {
    if (job_out_is_cli(job)) return job.cli_out ? cli_stream_error_text(job.cli_out) : nullptr;
    if (job.flags[1] & JOB_OUT_SLC)
        return job.slc_out ? slc_stream_error_text(job.slc_out) : nullptr;
    return job.fdm_out ? fdm_stream_error_text(job.fdm_out) : nullptr;
}

int streams_open() {
    uint32_t read_mode = 1, write_mode = 2;
    if (job.flags[0] & JOB_IN_CLI) {
        job.cli_in = cli_create();
        if (!job.cli_in) return failed_to("initialize the CLI input");
        cli_set_option(job.cli_in, CLI_OPT_MODE, &read_mode);
        cli_set_option(job.cli_in, CLI_OPT_FILE, job.in);
        cli_set_option(job.cli_in, CLI_OPT_SCALE, int_option(0));
        job.current_in = job.cli_in;
    } else if (job.flags[0] & JOB_IN_SLC) {
        job.slc_in = slc_create();
        if (!job.slc_in) return failed_to("initialize the SLC input");
        slc_set_option(job.slc_in, SLC_OPT_MODE, &read_mode);
        slc_set_option(job.slc_in, SLC_OPT_FILE, job.in);
        job.current_in = job.slc_in;
    } else {
        job.fdm_in = fdm_create();
        if (!job.fdm_in) return failed_to("initialize the FDM input");
        fdm_set_option(job.fdm_in, FDM_OPT_MODE, &read_mode);
        fdm_set_option(job.fdm_in, FDM_OPT_FILE, job.in);
        job.current_in = job.fdm_in;
    }

    if (job_out_is_cli(job)) {
        job.cli_out = cli_create();
        if (!job.cli_out) return failed_to("initialize the CLI output");
        uint32_t format = (job.flags[0] & JOB_OUT_CLI_ASCII) ? 1 : 2;
        cli_set_option(job.cli_out, CLI_OPT_FILE, job.out);
        cli_set_option(job.cli_out, CLI_OPT_MODE, &write_mode);
        cli_set_option(job.cli_out, CLI_OPT_FORMAT, &format);
        cli_set_option(job.cli_out, CLI_OPT_ALIGN,
                       int_option((job.flags[0] & JOB_OUT_CLI_ALIGNED) ? 1 : 0));
        cli_set_option(job.cli_out, CLI_OPT_SHORT,
                       int_option((job.flags[1] & JOB_OUT_CLI_SHORT) ? 1 : 0));
        cli_set_option(job.cli_out, CLI_OPT_SCALE, int_option(0));
        job.current_out = job.cli_out;
    } else if (job.flags[1] & JOB_OUT_SLC) {
        job.slc_out = slc_create();
        if (!job.slc_out) return failed_to("initialize the SLC output");
        slc_set_option(job.slc_out, SLC_OPT_MODE, &write_mode);
        slc_set_option(job.slc_out, SLC_OPT_FILE, job.out);
        job.current_out = job.slc_out;
    } else {
        job.fdm_out = fdm_create();
        if (!job.fdm_out) return failed_to("initialize the FDM output");
        fdm_set_option(job.fdm_out, FDM_OPT_MODE, &write_mode);
        fdm_set_option(job.fdm_out, FDM_OPT_FILE, job.out);
        job.current_out = job.fdm_out;
    }
    return 1;
}

int streams_check() {
    int result = 1;
    int system_error = 0;
    if (const char *text = input_error_text(&system_error)) {
        report("reading input", text, system_error);
        result = 0;
    }
    if (const char *text = streams_output_error_text()) {
        report("writing output", text, output_system_error());
        return 0;
    }
    return result;
}

void streams_close() {
    job_free_path(&job.in_path);
    job_free_path(&job.out_path);
    // Destroying an output stream writes the end of its file and flushes.
    cli_destroy(job.cli_in);
    cli_destroy(job.cli_out);
    slc_destroy(job.slc_in);
    slc_destroy(job.slc_out);
    fdm_destroy(job.fdm_in);
    fdm_destroy(job.fdm_out);
    job.cli_in = job.cli_out = nullptr;
    job.slc_in = job.slc_out = nullptr;
    job.fdm_in = job.fdm_out = nullptr;
    job.current_in = job.current_out = nullptr;
    if (job.in) fclose(job.in);
    // The output file is closed by output_close, which decides whether it
    // replaces its target.
    job.in = job.out = nullptr;
}
