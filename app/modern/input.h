// The input of a subcommand: a file or standard input ("-"), its format
// from its first bytes, its extension or --from.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "app/modern/console.h"
#include "laytran/detect.h"
#include "laytran/formats.h"
#include "laytran/model.h"

namespace laytran::modern {

// The format a --from name gives: cli (and every cli-* name), slc, ssl.
// Throws UsageError for another.
InputFormat parse_input_name(const std::string &name);

// The format an extension names (.cli, .slc, .ssl, letters in any case).
bool format_from_extension(const std::string &path, InputFormat &format);

class Input {
  public:
    Input() = default;
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;
    ~Input();

    // Opens `name` ("-": standard input), looks at its first bytes and
    // settles the format: `from` when given, else what the bytes show, else
    // the extension. False after an error message (exit status 1).
    bool open(const std::string &name, const std::string *from, Console &console);

    std::string name; // as given
    std::string path; // the file ("" for standard input)
    InputFormat format = InputFormat::cli;
    Detected sniffed = Detected::unknown;  // what the first bytes show
    Detected detected = Detected::unknown; // what is read: text or binary (for places)
    // Standard input as a stream that gives the bytes looked at first.
    std::FILE *stream = nullptr;
    // The place the console gives the input's diagnostics.
    InputPlace place() const;
    // Reads the whole model (empty layers kept), with a progress bar as
    // `when` says; the console places the messages. False after an error
    // message, with a hint when the contents look like another format.
    bool read(Model &model, ProgressBar::When when, Console &console);

  private:
    std::vector<unsigned char> head_;
    std::size_t served_ = 0;
    std::uint64_t header_end_ = 0;
    bool own_stream_ = false;
    static ssize_t serve(void *cookie, char *buf, std::size_t size);
};

} // namespace laytran::modern
