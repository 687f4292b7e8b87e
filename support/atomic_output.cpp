#include "support/atomic_output.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace laytran {

namespace {

// Gives the temporary file the existing target's owner and mode, so that
// replacing the file changes its contents only.
void copy_owner_and_mode(int fd, const struct stat *existing) {
    // Not allowed to give the file away (not root): keep at least the group
    // where that is allowed, and the mode in any case.
    if ((existing->st_uid != geteuid() || existing->st_gid != getegid()) &&
        fchown(fd, existing->st_uid, existing->st_gid) != 0 &&
        fchown(fd, static_cast<uid_t>(-1), existing->st_gid) != 0) {
        errno = 0;
    }
    fchmod(fd, existing->st_mode & 07777);
}

} // namespace

bool AtomicOutput::open_direct(const std::string &target) {
    std::FILE *f = std::fopen(target.c_str(), "wb");
    if (!f) return false;
    setvbuf(f, nullptr, _IONBF, 0);
    file_ = f;
    return true;
}

void AtomicOutput::adopt(std::FILE *stream) {
    setvbuf(stream, nullptr, _IONBF, 0);
    file_ = stream;
}

// Creates ".laytran-XXXXXX" in dir_fd_; the descriptor or -1 (errno set).
int AtomicOutput::create_temp(mode_t mode) {
    static constexpr char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    // The object's address tells apart two threads that start together.
    std::uint64_t seed =
        static_cast<std::uint64_t>(now.tv_nsec) ^ (static_cast<std::uint64_t>(getpid()) << 16) ^
        static_cast<std::uint64_t>(now.tv_sec) ^ (reinterpret_cast<std::uintptr_t>(this) << 20);
    for (int attempt = 0; attempt < 100; attempt++) {
        std::memcpy(temp_name_, ".laytran-", 9);
        for (int i = 0; i < 6; i++) {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            temp_name_[9 + i] = letters[(seed >> 33) % (sizeof letters - 1)];
        }
        temp_name_[15] = '\0';
        // The name counts as live just before the file exists, so that no
        // moment is left in which a signal would leave the file behind.
        if (watch_) watch_->live(dir_fd_, temp_name_);
        int fd = openat(dir_fd_, temp_name_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd >= 0) return fd;
        int error = errno;
        if (watch_) watch_->gone();
        errno = error;
        if (error != EEXIST) return -1;
    }
    return -1;
}

void AtomicOutput::forget_temp() {
    if (dir_fd_ >= 0) ::close(dir_fd_);
    dir_fd_ = -1;
    target_base_.clear();
}

bool AtomicOutput::open(const std::string &target, const struct stat *existing) {
    close(false);
    if (existing && !S_ISREG(existing->st_mode)) return open_direct(target);

    // A symbolic link keeps pointing at the file it names: the file it leads
    // to is the one replaced.
    std::string path = target;
    struct stat link;
    if (existing && lstat(target.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
        std::unique_ptr<char, decltype(&std::free)> resolved(realpath(target.c_str(), nullptr),
                                                             &std::free);
        if (!resolved) return false;
        path = resolved.get();
    } else if (!existing && lstat(target.c_str(), &link) == 0) {
        // A link to nothing: writing through it creates the file it names.
        return open_direct(target);
    }
    std::size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    target_base_ = slash == std::string::npos ? path : path.substr(slash + 1);
#ifdef O_PATH
    dir_fd_ = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
#else
    dir_fd_ = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
#endif
    if (dir_fd_ < 0) {
        int error = errno;
        forget_temp();
        errno = error;
        return false;
    }

    // A new file gets the mode fopen would give it; an existing one keeps
    // its own, which the temporary file takes before it holds any data.
    int fd = create_temp(existing ? 0600 : 0666);
    if (fd >= 0 && existing) copy_owner_and_mode(fd, existing);
    std::FILE *f = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (!f) {
        int error = errno;
        if (fd >= 0) {
            ::close(fd);
            unlinkat(dir_fd_, temp_name_, 0);
            if (watch_) watch_->gone();
        }
        forget_temp();
        errno = error;
        return false;
    }
    setvbuf(f, nullptr, _IONBF, 0);
    file_ = f;
    return true;
}

// Renames the temporary file over the target (rename_it set) or removes
// it; 0, or the rename's errno (the file then removed).
int AtomicOutput::end_temp(bool rename_it) {
    int error = 0;
    if (watch_) watch_->ending();
    if (rename_it && renameat(dir_fd_, temp_name_, dir_fd_, target_base_.c_str()) != 0)
        error = errno;
    if (!rename_it || error) unlinkat(dir_fd_, temp_name_, 0);
    if (watch_) watch_->gone();
    forget_temp();
    return error;
}

bool AtomicOutput::close(bool keep) {
    if (!file_) return true;
    // A failed run has said why; what closing a discarded file meets adds
    // nothing.
    int error = 0;
    if (keep && std::fflush(file_) != 0) error = errno;
    // The new contents must be on disk before the name points at them: a
    // crash after the rename must not leave an empty or partial file.
    if (keep && temporary() && !error && fsync(fileno(file_)) != 0) error = errno;
    if (std::fclose(file_) != 0 && keep && !error) error = errno;
    file_ = nullptr;
    failed_step_ = "write error";
    if (temporary()) {
        int rename_error = end_temp(keep && !error);
        if (!error && rename_error) {
            error = rename_error;
            failed_step_ = "rename error";
        }
    }
    error_number_ = error;
    if (error) errno = error;
    return error == 0;
}

} // namespace laytran
