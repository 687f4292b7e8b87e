// libFuzzer target: one whole translation (load, scale, place, reverse,
// write) on the global job record, as a run of the program does it.
// Byte 0 chooses the input format (bits 0-1), the output form (bits 2-4),
// -P (bit 5), -R (bit 6) and -U (bit 7); byte 1 the -U value (bits 0-2) and
// an output file that holds only a few hundred bytes (bit 3), so that the
// writers meet write errors. The rest is the input file, read from a real
// (memory) file so that the readers can measure it as they do on disk.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "app/progress.h"
#include "job/job.h"
#include "job/job_settings.h"
#include "translate/translate.h"

namespace {

const double UNITS[] = {1.0, 25.4, 0.01, 0.001, 1e-9, 1e9, 304.8, 2.54e-5};

FILE *memory_file(const uint8_t *data, size_t size, const char *mode, off_t limit) {
    int fd = memfd_create("laytran-fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return nullptr;
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    lseek(fd, 0, SEEK_SET);
    if (limit > 0 && (ftruncate(fd, limit) != 0 || fcntl(fd, F_ADD_SEALS, F_SEAL_GROW) != 0)) {
        close(fd);
        return nullptr;
    }
    FILE *file = fdopen(fd, mode);
    if (!file) {
        close(fd);
        return nullptr;
    }
    setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

void choose_output(uint8_t form) {
    switch (form) {
    case 1:
        job.flags[0] |= JOB_OUT_CLI_BINARY;
        break;
    case 2:
        job.flags[0] |= JOB_OUT_CLI_BINARY | JOB_OUT_CLI_ALIGNED;
        break;
    case 3:
        job.flags[0] |= JOB_OUT_CLI_BINARY;
        job.flags[1] |= JOB_OUT_CLI_SHORT;
        break;
    case 4:
        job.flags[0] |= JOB_OUT_CLI_BINARY | JOB_OUT_CLI_ALIGNED;
        job.flags[1] |= JOB_OUT_CLI_SHORT;
        break;
    case 5:
        job.flags[1] |= JOB_OUT_SLC;
        break;
    case 6:
        job.flags[1] |= JOB_OUT_FDM;
        break;
    default:
        job.flags[0] |= JOB_OUT_CLI_ASCII;
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    progress_create();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const uint8_t choice = data[0], more = data[1];
    job_reset();
    job.program_name = JOB_PROGRAM_NAME;
    job.flags[0] = JOB_IN_FILE | JOB_OUT_FILE;
    job.flags[2] = JOB_IN_FORMAT_SET | JOB_OUT_FORMAT_SET;
    job.flags[0] |= (choice & 3) == 1 ? JOB_IN_SLC : (choice & 3) == 2 ? JOB_IN_FDM : JOB_IN_CLI;
    choose_output((choice >> 2) & 7);
    // The forms that need positive numbers set -P, as the option handling does.
    if ((job.flags[0] & JOB_OUT_CLI_ALIGNED) || (job.flags[1] & JOB_OUT_CLI_SHORT) ||
        (choice & 0x20))
        job.flags[1] |= JOB_POSITIVE;
    if (choice & 0x40) {
        job.reverse = 1;
        job.flags[1] |= JOB_REVERSE_SET;
    }
    if (choice & 0x80) {
        job.units = UNITS[more & 7];
        job.flags[1] |= JOB_UNITS_SET;
    }
    if (!job_check_output_units(&job)) return 0;

    job.in = memory_file(data + 2, size - 2, "rb", 0);
    job.out = memory_file(nullptr, 0, "wb", (more & 8) ? 64 + (more >> 4) * 16 : 0);
    if (!job.in || !job.out) {
        if (job.in) fclose(job.in);
        if (job.out) fclose(job.out);
        return 0;
    }
    FILE *out = job.out;
    if (streams_open()) translate_job();
    streams_close();
    fclose(out);
    return 0;
}
