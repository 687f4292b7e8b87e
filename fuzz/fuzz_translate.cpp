// libFuzzer target: one whole translation (read, convert, place, reverse,
// write) through the library's laytran::translate, as the program runs it.
// Byte 0 chooses the input format (bits 0-1), the output form (bits 2-4),
// -P (bit 5), -R (bit 6) and -U (bit 7); byte 1 the -U value (bits 0-2) and
// an output file that holds only a few hundred bytes (bit 3), so that the
// writers meet write errors. The rest is the input file, read from a real
// (memory) file so that the readers can measure it as they do on disk.
// A run must fail exactly when it sent an error message.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "laytran/laytran.h"

namespace {

const double UNITS[] = {1.0, 25.4, 0.01, 0.001, 1e-9, 1e9, 304.8, 2.54e-5};
const laytran::OutputForm FORMS[] = {laytran::OutputForm::cli_ascii,
                                     laytran::OutputForm::cli_binary,
                                     laytran::OutputForm::cli_aligned,
                                     laytran::OutputForm::cli_short,
                                     laytran::OutputForm::cli_aligned_short,
                                     laytran::OutputForm::slc,
                                     laytran::OutputForm::fdm,
                                     laytran::OutputForm::cli_ascii};

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const uint8_t choice = data[0], more = data[1];
    laytran::TranslateOptions o;
    o.input = (choice & 3) == 1   ? laytran::InputFormat::slc
              : (choice & 3) == 2 ? laytran::InputFormat::fdm
                                  : laytran::InputFormat::cli;
    o.output = FORMS[(choice >> 2) & 7];
    // The forms that need positive numbers set -P, as the command line does.
    o.move_positive = laytran::needs_positive(o.output) || (choice & 0x20);
    o.reverse = (choice & 0x40) != 0;
    if (choice & 0x80) o.unit_mm = UNITS[more & 7];
    o.cli_header = laytran::CliHeaderStyle::classic;
    o.keep_empty_layers = false;

    FILE *in = memory_file(data + 2, size - 2, "rb", 0);
    FILE *out = memory_file(nullptr, 0, "wb", (more & 8) ? 64 + (more >> 4) * 16 : 0);
    if (!in || !out) {
        if (in) fclose(in);
        if (out) fclose(out);
        return 0;
    }
    size_t errors = 0;
    laytran::TranslateResult r = laytran::translate(in, out, o, [&](const laytran::Diagnostic &d) {
        errors += d.severity == laytran::Severity::error;
    });
    if (r.ok != (errors == 0)) abort();
    fclose(in);
    fclose(out);
    return 0;
}
