#include "app/modern/output.h"

#include <cerrno>
#include <sys/stat.h>

#include "support/system_error.h"

namespace laytran::modern {

namespace {

constexpr std::size_t block_size = std::size_t(1) << 16;

// Two names of one regular file.
bool same_file(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && S_ISREG(sa.st_mode) &&
           sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

} // namespace

bool Output::open(const std::string &name, const std::string &input, bool force, Console &console) {
    name_ = name;
    if (name == "-") {
        out_.adopt(stdout);
        return true;
    }
    struct stat st;
    const bool exists = stat(name.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode)) {
        console.error("is a directory", name);
        return false;
    }
    if (!input.empty() && same_file(input, name)) {
        console.error("the output file is the input file", name);
        return false;
    }
    if (exists && !force) {
        console.error("exists (not overwritten)", name);
        console.hint("use --force to overwrite it");
        return false;
    }
    if (!out_.open(name, exists ? &st : nullptr)) {
        console.error("cannot create: " + system_error_text(errno), name);
        return false;
    }
    return true;
}

bool Output::close(bool keep, Console &console) {
    if (!out_.close(keep) && keep) {
        console.error(std::string(out_.failed_step()) + ": " +
                          system_error_text(out_.error_number()),
                      name_ == "-" ? "<stdout>" : name_);
        return false;
    }
    return keep;
}

StreamBuffer::StreamBuffer(std::FILE *stream) : stream_(stream), block_(block_size) {
    setp(block_.data(), block_.data() + block_.size());
}

bool StreamBuffer::flush_block() {
    const std::size_t n = static_cast<std::size_t>(pptr() - pbase());
    setp(block_.data(), block_.data() + block_.size());
    if (error_) return false;
    errno = 0;
    if (n && std::fwrite(block_.data(), 1, n, stream_) != n) error_ = errno ? errno : EIO;
    return !error_;
}

StreamBuffer::int_type StreamBuffer::overflow(int_type c) {
    if (!flush_block()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) sputc(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
}

int StreamBuffer::sync() {
    return flush_block() ? 0 : -1;
}

std::string replace_extension(const std::string &path, const std::string &extension) {
    const std::size_t slash = path.rfind('/');
    const std::size_t base = slash == std::string::npos ? 0 : slash + 1;
    const std::size_t dot = path.rfind('.');
    if (dot == std::string::npos || dot <= base) return path + extension;
    return path.substr(0, dot) + extension;
}

} // namespace laytran::modern
