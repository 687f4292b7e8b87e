// The FDM slice file writer.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "formats/fdm/fdm_io.h"

namespace laytran {

namespace {
constexpr std::size_t number_text_size = 64;
} // namespace

std::size_t FdmWriter::format_fixed(double v, char *text) {
    // For a float value v * 1e6 is exact in a double (24 + 14 bits), so
    // rounding it to an integer (ties to even, as printf does) gives the six
    // decimals directly. Large and non-finite values go through snprintf.
    double scaled = v * 1e6;
    if (!(std::fabs(scaled) < 9.0e15)) {
        int n = std::snprintf(text, number_text_size, "%10f", v);
        return n < 0 ? 0 : std::strlen(text);
    }
    std::uint64_t u = static_cast<std::uint64_t>(std::fabs(std::nearbyint(scaled)));
    char digits[24];
    std::size_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    while (n < 7)
        digits[n++] = '0';
    const bool negative = std::signbit(v);
    const std::size_t len = (negative ? 1 : 0) + n + 1;
    std::size_t at = 0;
    while (at + len < 10)
        text[at++] = ' ';
    if (negative) text[at++] = '-';
    for (std::size_t i = n; i > 6; i--)
        text[at++] = digits[i - 1];
    text[at++] = '.';
    for (std::size_t i = 6; i > 0; i--)
        text[at++] = digits[i - 1];
    return at;
}

bool FdmWriter::record(FdmError code) {
    if (!error_) {
        error_.code = static_cast<int>(code);
        error_.text = fdm_error_text(error_.code);
        error_.offset = out_.offset();
        if (code == FdmError::write) error_.system_error = out_.error_number();
    }
    return false;
}

bool FdmWriter::check() {
    if (out_.failed()) return record(FdmError::write);
    return !error_;
}

void FdmWriter::number(float v) {
    char *text = out_.reserve(number_text_size);
    if (!text) return; // the output has failed; check() tells
    std::size_t len = format_fixed(static_cast<double>(v), text);
    if (std::memchr(text, '.', len)) {
        while (len > 0 && text[len - 1] == '0')
            len--;
    }
    out_.commit(len);
}

void FdmWriter::z_line() {
    out_.write("Z ");
    number(z_);
    if (thickness_ == 0.0f)
        out_.write(" .005"); // the standard thickness
    else
        number(thickness_);
    out_.put('\n');
}

bool FdmWriter::write_header() {
    if (header_written_ || finished_) return check();
    out_.write("SLICE V0\nSLICES ()\n");
    header_written_ = true;
    z_line();
    return check();
}

bool FdmWriter::layer(float z, float thickness) {
    if (finished_) return record(FdmError::context);
    z_ = z;
    thickness_ = thickness;
    if (header_written_) z_line();
    return check();
}

bool FdmWriter::contour(const Point *points, std::size_t count) {
    if (finished_) return record(FdmError::context);
    if (!write_header()) return false;
    // A contour without points has no form in the file.
    if (count == 0) return record(FdmError::argument);
    const Point &first = points[0], &last = points[count - 1];
    const bool closed = first.x == last.x && first.y == last.y;
    const std::size_t n = closed ? count - 1 : count;
    for (std::size_t i = 0; i < n; i++) {
        number(points[i].x);
        out_.put(' ');
        number(points[i].y);
        out_.put('\n');
    }
    out_.write(closed ? "C\n" : "O\n");
    return check();
}

bool FdmWriter::finish() {
    if (finished_) return !error_;
    finished_ = true;
    out_.write("END\n");
    if (!out_.finish()) record(FdmError::write);
    return !error_;
}

} // namespace laytran
