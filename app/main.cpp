// Program entry: makes the standard descriptors and the file size limit
// fail visibly, then runs the modern command line when the first argument
// is a subcommand word (or --help, --version), else the classic one; the
// result is the exit status.
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "app/classic/run.h"
#include "app/modern/command.h"

int main(int argc, char **argv) {
    // A standard descriptor that is closed gets /dev/null opened the wrong
    // way round: no file of the run can take its number, and every use of
    // it fails (a closed standard output fails the run, not some file).
    for (int fd = 0; fd <= 2; fd++) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            open("/dev/null", fd == 0 ? O_WRONLY : O_RDONLY);
    }
    // A file size limit makes the write fail with EFBIG, which the run
    // reports, instead of ending the process without a word.
    signal(SIGXFSZ, SIG_IGN);
    if (laytran::modern::applies(argc, argv)) return laytran::modern::run(argc, argv);
    return laytran::classic::run(argc, argv);
}
