#include "app/classic/files.h"

#include <cerrno>
#include <sys/stat.h>

#include "support/system_error.h"

namespace laytran::classic {

namespace {

void print(const std::string &line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
}

void unable_to_write(const std::string &name, int error) {
    print(std::string(program_name) + ": unable to access (mode:wb) \"" + name + "\"\n" +
          program_name + ": (" + system_error_text(error) + ")\n");
}

std::string extension_of(const std::string &name) {
    std::string::size_type at = extension_at(name);
    return at == std::string::npos ? std::string() : name.substr(at);
}

// Both regular and the same file: writing one would destroy the other.
bool same_file(std::FILE *input, const struct stat &output) {
    struct stat in;
    return input && fstat(fileno(input), &in) == 0 && S_ISREG(in.st_mode) &&
           S_ISREG(output.st_mode) && in.st_dev == output.st_dev && in.st_ino == output.st_ino;
}

// Opens name for reading, else name with the default extension. False
// after the message.
bool open_input(const std::string &name, const char *ext, ClassicFiles &files) {
    std::string path = name;
    std::FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) {
        path = with_extension(name, ext);
        file = std::fopen(path.c_str(), "rb");
    }
    if (!file) {
        const int error = errno;
        print(std::string(program_name) + ": unable to access (mode:rb) neither \"" + name +
              "\" nor \"<ditto>" + ext + "\"\n" + program_name + ": (" + system_error_text(error) +
              ")\n");
        return false;
    }
    files.input = file;
    files.input_path = path;
    return true;
}

// Opens the output named name: with the default extension added where the
// name has none, unless name is an existing device or pipe.
Resolved open_output(const std::string &name, const char *ext, ClassicFiles &files) {
    // A directory is never a name for the output, nor a place to put ".cli"
    // into.
    struct stat st;
    const bool named_exists = stat(name.c_str(), &st) == 0;
    if ((!name.empty() && name.back() == '/') || (named_exists && S_ISDIR(st.st_mode))) {
        unable_to_write(name, EISDIR);
        return Resolved::refuse;
    }
    // A device or a pipe is written under the name it has.
    const std::string target =
        named_exists && !S_ISREG(st.st_mode) ? name : with_extension(name, ext);
    const bool exists = stat(target.c_str(), &st) == 0;
    if (!exists && errno != ENOENT) {
        unable_to_write(name, errno);
        return Resolved::stop;
    }
    if (exists && S_ISDIR(st.st_mode)) {
        unable_to_write(name, EISDIR);
        return Resolved::refuse;
    }
    if (exists && same_file(files.input, st)) {
        print(std::string(program_name) + ": the output file is the input file (" + target + ")\n");
        return Resolved::refuse;
    }
    if (exists)
        print(std::string(program_name) + "(info): output file " + target + " already exists\n");
    if (!files.output.open(target, exists ? &st : nullptr)) {
        unable_to_write(name, errno);
        return Resolved::stop;
    }
    files.output_path = target;
    return Resolved::run;
}

} // namespace

void ClassicFiles::close_input() {
    if (input && input != stdin) std::fclose(input);
    input = nullptr;
}

std::string::size_type extension_at(const std::string &name) {
    if (name.empty() || name == ".") return std::string::npos;
    for (std::string::size_type i = name.size(); i-- > 0;) {
        if (name[i] == '/') return std::string::npos;
        if (name[i] == '.') return i;
    }
    return std::string::npos;
}

std::string with_extension(const std::string &name, const char *ext) {
    return extension_at(name) == std::string::npos ? name + ext : name;
}

Resolved resolve_files(ClassicOptions &o, ClassicFiles &files) {
    using Kind = OutputLetters::Kind;
    const bool verbose = o.verbosity >= 1 && o.verbosity <= 5;
    o.no_window = true;

    // Standard input without -F is read as CLI.
    if (!o.input_format_set) {
        const std::string ext = o.input_path ? extension_of(*o.input_path) : ".cli";
        if (ext == ".slc") {
            o.input_format = InputFormat::slc;
        } else if (ext == ".ssl") {
            o.input_format = InputFormat::fdm;
        } else {
            o.input_format = InputFormat::cli;
            if (ext != ".cli" && verbose)
                print(std::string(program_name) + "(info): input file format assumed to be CLI\n");
        }
    }
    // Standard output without -O is written as ASCII CLI.
    if (!o.output_format_set) {
        if (!o.output_path) {
            o.output.kind = Kind::ascii;
        } else {
            const std::string ext = extension_of(*o.output_path);
            if (ext == ".slc") {
                o.output.kind = Kind::slc;
            } else if (ext == ".ssl") {
                o.output.kind = Kind::fdm;
            } else {
                o.output.kind = Kind::binary;
                if (verbose)
                    print(std::string(program_name) +
                          "(info): output file format assumed to be binary CLI\n");
            }
        }
    }

    if (o.input_path && !open_input(*o.input_path, input_extension(o), files))
        return Resolved::stop;
    if (o.output_path) {
        Resolved opened = open_output(*o.output_path, output_extension(o), files);
        if (opened != Resolved::run) return opened;
    } else {
        files.output.adopt(stdout);
    }

    if (o.output.kind == Kind::binary && (o.output.aligned || o.output.short_form)) {
        print(std::string(program_name) +
              "(info): setting -P (output format requires positive numbers)\n");
        o.positive = true;
    }
    return Resolved::run;
}

} // namespace laytran::classic
