#include "job/job_output.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "support/mm.h"

namespace {

const int CLEANUP_SIGNALS[] = {SIGHUP, SIGINT, SIGTERM};
constexpr int CLEANUP_SIGNAL_COUNT = sizeof CLEANUP_SIGNALS / sizeof CLEANUP_SIGNALS[0];

// What a signal handler may need: fixed storage, filled before the
// temporary file exists and read by nothing but async-signal-safe calls.
char temp_name[32];
int temp_dir = -1;
volatile sig_atomic_t temp_live = 0;

struct sigaction saved_actions[CLEANUP_SIGNAL_COUNT];
bool handlers_installed = false;

FILE *out_file = nullptr;
const char *failed_step = "write error";
char *target_base = nullptr; // the target's name inside temp_dir (owned)

void on_signal(int signal_number) {
    if (temp_live) {
        unlinkat(temp_dir, temp_name, 0);
        temp_live = 0;
    }
    // Die of the signal, so that the parent sees how the run ended.
    signal(signal_number, SIG_DFL);
    raise(signal_number);
}

void install_handlers() {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    for (int s : CLEANUP_SIGNALS)
        sigaddset(&action.sa_mask, s);
    for (int i = 0; i < CLEANUP_SIGNAL_COUNT; i++) {
        sigaction(CLEANUP_SIGNALS[i], nullptr, &saved_actions[i]);
        // A signal the caller chose to ignore stays ignored.
        if (saved_actions[i].sa_handler != SIG_IGN) sigaction(CLEANUP_SIGNALS[i], &action, nullptr);
    }
    handlers_installed = true;
}

void restore_handlers() {
    if (!handlers_installed) return;
    for (int i = 0; i < CLEANUP_SIGNAL_COUNT; i++)
        sigaction(CLEANUP_SIGNALS[i], &saved_actions[i], nullptr);
    handlers_installed = false;
}

void block_signals(sigset_t *old) {
    sigset_t set;
    sigemptyset(&set);
    for (int s : CLEANUP_SIGNALS)
        sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, old);
}

char *copy_text(const char *text, size_t length) {
    char *copy = static_cast<char *>(mm_malloc(length + 1));
    if (copy) memcpy(copy, text, length);
    return copy;
}

void free_text(char **text) {
    if (*text) mm_free(*text, strlen(*text) + 1, 0);
    *text = nullptr;
}

// Creates ".laytran-XXXXXX" in temp_dir; the descriptor or -1 (errno set).
int create_temp(mode_t mode) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    unsigned long seed = static_cast<unsigned long>(now.tv_nsec) ^
                         (static_cast<unsigned long>(getpid()) << 16) ^
                         static_cast<unsigned long>(now.tv_sec);
    for (int attempt = 0; attempt < 100; attempt++) {
        memcpy(temp_name, ".laytran-", 9);
        for (int i = 0; i < 6; i++) {
            seed = seed * 6364136223846793005ul + 1442695040888963407ul;
            temp_name[9 + i] = letters[(seed >> 33) % (sizeof letters - 1)];
        }
        temp_name[15] = '\0';
        // The name counts as live just before the file exists, so that no
        // moment is left in which a signal would leave the file behind.
        temp_live = 1;
        int fd = openat(temp_dir, temp_name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd >= 0) return fd;
        temp_live = 0;
        if (errno != EEXIST) return -1;
    }
    return -1;
}

// Gives the temporary file the existing target's owner and mode, so that
// replacing the file changes its contents only.
void copy_owner_and_mode(int fd, const struct stat *existing) {
    // Not allowed to give the file away (not root): keep at least the
    // group where that is allowed, and the mode in any case.
    if ((existing->st_uid != geteuid() || existing->st_gid != getegid()) &&
        fchown(fd, existing->st_uid, existing->st_gid) != 0 &&
        fchown(fd, static_cast<uid_t>(-1), existing->st_gid) != 0) {
        errno = 0;
    }
    fchmod(fd, existing->st_mode & 07777);
}

void forget_temp() {
    temp_live = 0;
    if (temp_dir >= 0) close(temp_dir);
    temp_dir = -1;
    free_text(&target_base);
}

// Renames the temporary file over the target (rename_it set) or removes
// it; 0, or the rename's errno (the file then removed).
int end_temp(bool rename_it) {
    int error = 0;
    sigset_t old;
    block_signals(&old);
    if (rename_it && renameat(temp_dir, temp_name, temp_dir, target_base) != 0) error = errno;
    if (!rename_it || error) unlinkat(temp_dir, temp_name, 0);
    temp_live = 0;
    restore_handlers();
    sigprocmask(SIG_SETMASK, &old, nullptr);
    forget_temp();
    return error;
}

int open_direct(const char *target, FILE **file) {
    FILE *f = fopen(target, "wb");
    if (!f) return 0;
    setvbuf(f, nullptr, _IONBF, 0);
    out_file = *file = f;
    return 1;
}

} // namespace

int output_open(const char *target, const struct stat *existing, FILE **file) {
    if (existing && !S_ISREG(existing->st_mode)) return open_direct(target, file);

    // A symbolic link keeps pointing at the file it names: the file it
    // leads to is the one replaced.
    char *resolved = nullptr;
    struct stat link;
    if (existing && lstat(target, &link) == 0 && S_ISLNK(link.st_mode)) {
        resolved = realpath(target, nullptr);
        if (!resolved) return 0;
    } else if (!existing && lstat(target, &link) == 0) {
        // A link to nothing: writing through it creates the file it names.
        return open_direct(target, file);
    }
    const char *path = resolved ? resolved : target;
    const char *slash = strrchr(path, '/');
    const char *base = slash ? slash + 1 : path;
    char *dir = slash ? copy_text(path, slash == path ? 1 : static_cast<size_t>(slash - path))
                      : copy_text(".", 1);
    target_base = copy_text(base, strlen(base));
    free(resolved);
    if (!dir || !target_base) {
        if (dir) free_text(&dir);
        free_text(&target_base);
        errno = ENOMEM;
        return 0;
    }
#ifdef O_PATH
    temp_dir = open(dir, O_PATH | O_DIRECTORY | O_CLOEXEC);
#else
    temp_dir = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
#endif
    free_text(&dir);
    if (temp_dir < 0) {
        int error = errno;
        forget_temp();
        errno = error;
        return 0;
    }

    install_handlers();
    // A new file gets the mode fopen would give it; an existing one keeps
    // its own, which the temporary file takes before it holds any data.
    int fd = create_temp(existing ? 0600 : 0666);
    if (fd >= 0 && existing) copy_owner_and_mode(fd, existing);
    FILE *f = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (!f) {
        int error = errno;
        if (fd >= 0) {
            close(fd);
            unlinkat(temp_dir, temp_name, 0);
        }
        restore_handlers();
        forget_temp();
        errno = error;
        return 0;
    }
    setvbuf(f, nullptr, _IONBF, 0);
    out_file = *file = f;
    return 1;
}

void output_use_stdout(FILE **file) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    out_file = *file = stdout;
}

int output_close(int keep) {
    if (!out_file) return 1;
    // A failed run has said why; what closing a discarded file meets adds
    // nothing.
    int error = 0;
    if (keep && fflush(out_file) != 0) error = errno;
    // The new contents must be on disk before the name points at them: a
    // crash after the rename must not leave an empty or partial file.
    if (keep && temp_live && !error && fsync(fileno(out_file)) != 0) error = errno;
    if (fclose(out_file) != 0 && keep && !error) error = errno;
    out_file = nullptr;
    failed_step = "write error";
    if (temp_live) {
        int rename_error = end_temp(keep && !error);
        if (!error && rename_error) {
            error = rename_error;
            failed_step = "rename error";
        }
    }
    if (error) errno = error;
    return error == 0;
}

const char *output_failed_step() {
    return failed_step;
}
