// Where a subcommand writes: standard output ("-"), or a temporary file
// beside the target that replaces it only when everything was written. An
// existing target is replaced only with --force.
#pragma once

#include <cstdio>
#include <streambuf>
#include <string>
#include <vector>

#include "app/classic/cleanup.h"
#include "app/modern/console.h"
#include "support/atomic_output.h"

namespace laytran::modern {

class Output {
  public:
    // Opens `name` ("-": standard output) for writing; `input` is the file
    // read (refused as the output; "" for standard input). False after an
    // error message (exit status 1): a directory, the input, an existing
    // file without `force`, a file that cannot be created.
    bool open(const std::string &name, const std::string &input, bool force, Console &console);
    std::FILE *stream() const { return out_.stream(); }
    // A temporary file beside the target, which only this program writes.
    bool temporary() const { return out_.temporary(); }
    // Ends the output: with `keep` the target is replaced (or standard
    // output flushed); without, or when that fails (after an error
    // message), the target stays as it was. True when kept.
    bool close(bool keep, Console &console);

  private:
    std::string name_;
    classic::SignalCleanup cleanup_; // removes the temporary file on SIGINT, SIGTERM, SIGHUP
    AtomicOutput out_{&cleanup_};
};

// A std::ostream's buffer that writes blocks to a stdio stream and keeps
// the error number of the first write that failed (0 while none did).
class StreamBuffer : public std::streambuf {
  public:
    explicit StreamBuffer(std::FILE *stream);
    ~StreamBuffer() override { sync(); }
    int error_number() const { return error_; }

  protected:
    int_type overflow(int_type c) override;
    int sync() override;

  private:
    bool flush_block();
    std::FILE *stream_;
    std::vector<char> block_;
    int error_ = 0;
};

// `path` with its extension (from the last '.' of its last component, not
// a leading one) replaced by `extension`, or `extension` added to it:
// "part.cli" -> "part.html", "dir/part" -> "dir/part.html".
std::string replace_extension(const std::string &path, const std::string &extension);

} // namespace laytran::modern
