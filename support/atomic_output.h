// An output file that replaces its target only when everything was written.
//
// A regular file (new or existing) is written through a temporary file
// ".laytran-XXXXXX" created in the target's own directory; `close(true)`
// makes the data durable and renames it over the target, `close(false)`
// (and the destructor) removes it, so a failed run leaves a previous file as
// it was. An existing target keeps its mode (and owner, where allowed); a
// symbolic link keeps pointing at the file it names, which is the one
// replaced. Other targets (devices, pipes, a link to nothing) and an adopted
// stream are written directly.
//
// The stream is unbuffered at the stdio level: the caller assembles its own
// blocks (ByteOutput), so a write error shows at the write that met it.
//
// Nothing here handles signals. A program that wants the temporary file
// removed when it is interrupted gives a Watch, which is told the file's
// directory and name before the file can exist and when it is gone.
#pragma once

#include <cstdio>
#include <string>
#include <sys/stat.h>

namespace laytran {

class AtomicOutput {
  public:
    struct Watch {
        virtual ~Watch() = default;
        // `name` in directory `dir_fd` may exist from now on (called just
        // before the file is created).
        virtual void live(int dir_fd, const char *name) = 0;
        // The file is about to be renamed or removed.
        virtual void ending() {}
        // It no longer exists under `name` (renamed, removed, or never
        // created).
        virtual void gone() = 0;
    };

    AtomicOutput() = default;
    explicit AtomicOutput(Watch *watch) : watch_(watch) {}
    AtomicOutput(const AtomicOutput &) = delete;
    AtomicOutput &operator=(const AtomicOutput &) = delete;
    ~AtomicOutput() { close(false); }

    // Opens `target` for writing. `existing` is the target's stat when it
    // exists (null when not). False with errno set; nothing is left behind.
    bool open(const std::string &target, const struct stat *existing);
    // Writes directly to `stream` (e.g. the standard output), which
    // `close` flushes and closes.
    void adopt(std::FILE *stream);

    std::FILE *stream() const { return file_; }
    bool is_open() const { return file_ != nullptr; }
    // Writing goes to a temporary file that `close(true)` renames.
    bool temporary() const { return dir_fd_ >= 0; }

    // Ends the output: with `keep`, flushes, makes the data durable
    // (temporary file only), closes and renames over the target; without,
    // closes and removes the temporary file (what closing a discarded file
    // meets is not an error). True on success; false with `failed_step()`
    // and `error_number()` set. Without an open output, does nothing.
    bool close(bool keep);
    // What the last failed close was doing: "write error" or "rename error".
    const char *failed_step() const { return failed_step_; }
    int error_number() const { return error_number_; }

  private:
    bool open_direct(const std::string &target);
    int create_temp(mode_t mode);
    int end_temp(bool rename_it);
    void forget_temp();

    Watch *watch_ = nullptr;
    std::FILE *file_ = nullptr;
    int dir_fd_ = -1;
    char temp_name_[16] = {};
    std::string target_base_; // the target's name inside dir_fd_
    const char *failed_step_ = "write error";
    int error_number_ = 0;
};

} // namespace laytran
