// The public API (include/laytran/io.h) over the translation context.
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "laytran/io.h"
#include "laytran/version.h"
#include "support/atomic_output.h"
#include "support/system_error.h"
#include "translate/translation.h"

namespace laytran {

namespace {

void report_error(const DiagnosticSink &sink, std::string text, const std::string &file) {
    if (!sink) return;
    Diagnostic d;
    d.severity = Severity::error;
    d.text = std::move(text);
    d.file = file;
    sink(d);
}

void no_memory(const DiagnosticSink &sink, const char *what) {
    report_error(sink, std::string("error ") + what + " file (no more memory)", {});
}

TranslateOptions reading(const ReadOptions &o) {
    TranslateOptions t;
    t.input = o.format;
    t.keep_empty_layers = o.keep_empty_layers;
    t.progress = o.progress;
    return t;
}

TranslateOptions writing(const WriteOptions &o) {
    TranslateOptions t;
    t.output = o.form;
    t.unit_mm = o.unit_mm;
    t.cli_header = o.cli_header;
    return t;
}

// An input file open for reading, closed when it goes.
struct InputFile {
    int fd = -1;
    InputFile(const std::string &path, const DiagnosticSink &sink) {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            report_error(sink,
                         "error reading input file (open error: " + system_error_text(errno) + ")",
                         path);
    }
    ~InputFile() {
        if (fd >= 0) ::close(fd);
    }
};

// Opens `path` through a temporary file; false after the message.
bool open_output(AtomicOutput &file, const std::string &path, const DiagnosticSink &sink) {
    struct stat st;
    const bool exists = stat(path.c_str(), &st) == 0;
    if (file.open(path, exists ? &st : nullptr)) return true;
    report_error(sink, "error writing output file (open error: " + system_error_text(errno) + ")",
                 path);
    return false;
}

// Ends the output: kept when `ok`. False (after the message) when that
// failed.
bool close_output(AtomicOutput &file, bool ok, const std::string &path,
                  const DiagnosticSink &sink) {
    if (file.close(ok) || !ok) return ok;
    report_error(sink,
                 std::string("error writing output file (") + file.failed_step() + ": " +
                     system_error_text(file.error_number()) + ")",
                 path);
    return false;
}

bool read_bytes(InputBytes &in, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink) {
    Translation t(reading(options), sink);
    const bool ok = t.read(in);
    model = std::move(t.model());
    return ok;
}

} // namespace

bool read_model(const std::string &path, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink) {
    try {
        InputFile file(path, sink);
        if (file.fd < 0) return false;
        InputBytes in = InputBytes::descriptor(file.fd, path);
        return read_bytes(in, options, model, sink);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "reading input");
        return false;
    }
}

bool read_model(std::FILE *stream, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink) {
    try {
        InputBytes in = InputBytes::stream(stream);
        return read_bytes(in, options, model, sink);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "reading input");
        return false;
    }
}

bool read_model(const void *data, std::size_t size, const ReadOptions &options, Model &model,
                const DiagnosticSink &sink) {
    try {
        InputBytes in = InputBytes::memory(data, size);
        return read_bytes(in, options, model, sink);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "reading input");
        return false;
    }
}

bool write_model(const Model &model, const std::string &path, const WriteOptions &options,
                 const DiagnosticSink &sink) {
    try {
        AtomicOutput file;
        if (!open_output(file, path, sink)) return false;
        bool ok;
        {
            ByteOutput out(fileno(file.stream()),
                           file.temporary() ? OutputFile::own : OutputFile::shared);
            Translation t(writing(options), sink);
            ok = t.write(model, out, path);
        }
        return close_output(file, ok, path, sink);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "writing output");
        return false;
    }
}

bool write_model(const Model &model, std::FILE *stream, const WriteOptions &options,
                 const DiagnosticSink &sink) {
    try {
        ByteOutput out(stream);
        Translation t(writing(options), sink);
        return t.write(model, out);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "writing output");
        return false;
    }
}

TranslateResult translate(const std::string &input_path, const std::string &output_path,
                          const TranslateOptions &options, const DiagnosticSink &sink) {
    TranslateResult result;
    try {
        // Writing the input while reading it would destroy it.
        struct stat in_st, out_st;
        if (stat(input_path.c_str(), &in_st) == 0 && stat(output_path.c_str(), &out_st) == 0 &&
            S_ISREG(in_st.st_mode) && in_st.st_dev == out_st.st_dev &&
            in_st.st_ino == out_st.st_ino) {
            report_error(sink, "the output file is the input file (" + output_path + ")",
                         output_path);
            return result;
        }
        InputFile in_file(input_path, sink);
        if (in_file.fd < 0) return result;
        AtomicOutput file;
        if (!open_output(file, output_path, sink)) return result;
        bool ok;
        {
            InputBytes in = InputBytes::descriptor(in_file.fd, input_path);
            ByteOutput out(fileno(file.stream()),
                           file.temporary() ? OutputFile::own : OutputFile::shared);
            Translation t(options, sink);
            ok = t.run(in, out, output_path);
            result.gaps = t.gaps();
        }
        result.ok = close_output(file, ok, output_path, sink);
    } catch (const std::bad_alloc &) {
        no_memory(sink, "writing output");
        result.ok = false;
    }
    return result;
}

TranslateResult translate(std::FILE *input, std::FILE *output, const TranslateOptions &options,
                          const DiagnosticSink &sink) {
    TranslateResult result;
    try {
        InputBytes in = InputBytes::stream(input);
        ByteOutput out(output, options.private_output ? OutputFile::own : OutputFile::shared);
        Translation t(options, sink);
        result.ok = t.run(in, out);
        result.gaps = t.gaps();
    } catch (const std::bad_alloc &) {
        no_memory(sink, "writing output");
        result.ok = false;
    }
    return result;
}

const char *version() {
    return LAYTRAN_VERSION_STRING;
}

} // namespace laytran
