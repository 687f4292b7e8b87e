// The CLI writer: keywords, numbers in ASCII and binary, the header section
// and the elements.
#include "formats/cli/cli_writer.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "support/number_text.h"

namespace laytran {

namespace {

// Binary commands.
enum : std::uint32_t {
    cmd_layer_long = 127,
    cmd_layer_short = 128,
    cmd_polyline_short = 129,
    cmd_polyline_long = 130,
    cmd_hatches_short = 131,
    cmd_hatches_long = 132,
};

// Binary points formatted in one go.
constexpr std::size_t run_points = 1024;
constexpr bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
// The points' coordinates are formatted as one run of floats.
static_assert(sizeof(Point) == 2 * sizeof(float), "a point is two floats");

// A real in a 16-bit field: its fraction is cut off and the integer must
// lie in 0 to 65535 (never wrapped).
bool fits_short(float v) {
    const double t = std::trunc(static_cast<double>(v));
    return t >= 0.0 && t <= 65535.0;
}

std::uint32_t float_bits(float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return bits;
}

void store_u16(std::uint8_t *p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v & 0xFF);
    p[1] = static_cast<std::uint8_t>((v >> 8) & 0xFF);
}

void store_u32(std::uint8_t *p, std::uint32_t v) {
    store_u16(p, v & 0xFFFF);
    store_u16(p + 2, v >> 16);
}

// Negative zero is written as 0.
std::size_t marked_real(float v, char *out) {
    return format_marked_real(v == 0.0f ? 0.0f : v, out);
}

std::uint32_t local_date() {
    std::time_t now = std::time(nullptr);
    std::tm parts;
    if (!localtime_r(&now, &parts)) return 0;
    return static_cast<std::uint32_t>(parts.tm_mday * 10000 + (parts.tm_mon + 1) * 100 +
                                      parts.tm_year % 100);
}

} // namespace

CliWriter::CliWriter(ByteOutput &out, OutputForm form)
    : out_(out), ascii_(form == OutputForm::cli_ascii),
      aligned_(form == OutputForm::cli_aligned || form == OutputForm::cli_aligned_short),
      short_(form == OutputForm::cli_short || form == OutputForm::cli_aligned_short) {
    if (!is_cli(form)) fail(CliError::argument);
}

bool CliWriter::fail(CliError code) {
    if (error_ == CliError::none) {
        // A failed write before this error is what the output saw first
        // (once every byte handed on is known to be written or not).
        out_.settle();
        if (out_.failed()) code = CliError::write;
        error_ = code;
        system_error_ = cli_error_has_errno(code) ? out_.error_number() : 0;
        error_offset_ = out_.offset();
    }
    return false;
}

bool CliWriter::output_ok() {
    return !out_.failed() || fail(CliError::write);
}

void CliWriter::text(const char *s) {
    out_.write(s);
}

// Zero bytes up to the next multiple of 4 (aligned forms only).
void CliWriter::pad() {
    if (!aligned_) return;
    while (out_.offset() % 4 != 0 && out_.put(0)) {
    }
}

// 16-bit little-endian value, after the padding when align is on.
void CliWriter::u16(std::uint32_t v, bool align) {
    if (align) pad();
    std::uint8_t b[2];
    store_u16(b, v);
    out_.write(b, 2);
}

// Both halves of a 32-bit value stay together: padding only before it.
void CliWriter::u32(std::uint32_t v, bool align) {
    u16(v & 0xFFFF, align);
    u16(v >> 16, false);
}

void CliWriter::integer(std::uint32_t v, bool shorts) {
    if (!binary_) {
        char buf[16];
        auto r = std::to_chars(buf, buf + sizeof buf, v);
        out_.write(buf, static_cast<std::size_t>(r.ptr - buf));
    } else if (!aligned_ && !shorts) {
        u32(v, false);
    } else {
        u16(v, aligned_); // fits: checked before the element
    }
}

void CliWriter::ascii_real(float v) {
    char buf[NUMBER_TEXT_MAX];
    out_.write(buf, marked_real(v, buf));
}

void CliWriter::real(float v, bool shorts, bool align) {
    if (!binary_)
        ascii_real(v);
    else if (shorts)
        u16(static_cast<std::uint32_t>(std::trunc(static_cast<double>(v))), align);
    else
        u32(float_bits(v), align);
}

void CliWriter::layer_command(float z) {
    if (binary_) {
        u16(short_ ? cmd_layer_short : cmd_layer_long, aligned_);
        real(z, short_, aligned_);
    } else {
        text("$$LAYER/");
        ascii_real(z);
        text("\n");
    }
}

bool CliWriter::write_header(bool first_layer) {
    if (header_written_) return true;
    if (error_ != CliError::none || finished_) return false;
    text("$$HEADERSTART\n");
    text(ascii_ ? "$$ASCII\n" : "$$BINARY\n");
    // Aligned binary data is announced so that a reader finds the padding.
    if (!ascii_ && aligned_) text("$$ALIGN\n");
    text("$$VERSION/200\n$$UNITS/");
    ascii_real(units());
    text("\n");
    const std::uint32_t date = header_.date != 0 ? header_.date : local_date();
    if (date != 0) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "$$DATE/%06d\n", static_cast<int>(date));
        text(buf);
    }
    if (header_.layers != 0) {
        text("$$LAYERS/");
        integer(header_.layers, false);
        text("\n");
    }
    if (!header_.dimension.empty()) {
        text("$$DIMENSION/");
        out_.write(header_.dimension);
        text("\n");
    }
    for (const Label &label : header_.labels) {
        text("$$LABEL/");
        integer(label.id, false);
        text(",");
        out_.write(label.text);
        text("\n");
    }
    // Binary geometry follows the letters of $$HEADEREND directly.
    text(ascii_ ? "$$HEADEREND\n$$GEOMETRYSTART\n" : "$$HEADEREND");
    header_written_ = true;
    binary_ = !ascii_;
    if (first_layer) layer_command(layer_z_);
    return output_ok();
}

bool CliWriter::set_layer(float z) {
    if (error_ != CliError::none) return false;
    if (finished_) return fail(CliError::context);
    if (!ascii_ && short_ && !fits_short(z)) {
        fault_ = {CliField::layer_height, static_cast<double>(z)};
        return fail(CliError::field);
    }
    if (header_written_) {
        if (cli_same_height(z, layer_z_)) return true;
        layer_command(z);
    }
    layer_z_ = z;
    return output_ok();
}

// Whether every value of the element fits its field; when one does not,
// fault_ says which.
bool CliWriter::check_element(bool hatches, std::uint32_t id, std::uint32_t direction,
                              const Point *p, std::size_t count) {
    if (ascii_) return true;
    // Hatches are 16-bit in every binary form; aligned integers too.
    const bool short_values = short_ || hatches;
    const std::size_t n = hatches ? count / 2 : count;
    CliFieldFault found;
    if (short_values || aligned_) {
        if (id > 0xFFFF)
            found = {CliField::id, static_cast<double>(id)};
        else if (!hatches && direction > 0xFFFF)
            found = {CliField::direction, static_cast<double>(direction)};
        else if (n > 0xFFFF)
            found = {CliField::count, static_cast<double>(n)};
    }
    const std::size_t values = hatches ? 2 * n : count;
    for (std::size_t i = 0; short_values && found.field == CliField::none && i < values; i++) {
        if (!fits_short(p[i].x))
            found = {CliField::x, static_cast<double>(p[i].x)};
        else if (!fits_short(p[i].y))
            found = {CliField::y, static_cast<double>(p[i].y)};
    }
    if (found.field == CliField::none) return true;
    fault_ = found;
    return false;
}

// The points of an element: x and y of one point form one aligned unit, so
// that padding comes only before the first point. The texts and values are
// formatted in place in the output's block, or, when the block is smaller
// than a run, in a local one that is then copied.
void CliWriter::points(const Point *p, std::size_t count, bool shorts) {
    if (!binary_) {
        text(",");
        constexpr std::size_t room = 2 * NUMBER_TEXT_MAX + 2;
        char local[room];
        const bool ok = out_.write_batches(
            count, 64, room, local, [&](std::size_t first, std::size_t end, char *to) {
                std::size_t k = 0;
                if (first > 0) to[k++] = ',';
                return k + marked_reals_(&p[first].x, 2 * (end - first), to + k);
            });
        if (!ok) return;
        text("\n");
        return;
    }
    if (count == 0) return;
    pad();
    if (little_endian && !shorts) {
        // A point in memory is the two little-endian floats of the file.
        out_.write(p, count * sizeof(Point));
        return;
    }
    const std::size_t size = shorts ? 4 : 8;
    char local[8];
    out_.write_batches(count, run_points, size, local,
                       [&](std::size_t first, std::size_t end, char *buf) {
                           auto *to = reinterpret_cast<std::uint8_t *>(buf);
                           if (shorts) {
                               for (std::size_t j = first; j < end; j++, to += 4) {
                                   store_u16(to, static_cast<std::uint32_t>(p[j].x));
                                   store_u16(to + 2, static_cast<std::uint32_t>(p[j].y));
                               }
                           } else {
                               for (std::size_t j = first; j < end; j++, to += 8) {
                                   store_u32(to, float_bits(p[j].x));
                                   store_u32(to + 4, float_bits(p[j].y));
                               }
                           }
                           return (end - first) * size;
                       });
}

bool CliWriter::write_element(CliElementKind kind, std::uint32_t id, std::uint32_t direction,
                              const Point *p, std::size_t count) {
    if (error_ != CliError::none) return false;
    if (finished_) return fail(CliError::context);
    if (count > UINT32_MAX || (count > 0 && !p)) return fail(CliError::argument);
    const bool hatches = kind == CliElementKind::hatches;
    if (!check_element(hatches, id, direction, p, count)) return fail(CliError::field);
    if (!header_written_ && !write_header(true)) return false;
    if (hatches) {
        // Hatches are always written in the short form in binary geometry.
        const auto n = static_cast<std::uint32_t>(count / 2);
        if (binary_)
            u16(cmd_hatches_short, aligned_);
        else
            text("$$HATCHES/");
        integer(id, true);
        if (!binary_) text(",");
        integer(n, true);
        points(p, 2 * std::size_t{n}, true);
    } else {
        if (binary_)
            u16(short_ ? cmd_polyline_short : cmd_polyline_long, aligned_);
        else
            text("$$POLYLINE/");
        integer(id, short_);
        if (!binary_) text(",");
        integer(direction, short_);
        if (!binary_) text(",");
        integer(static_cast<std::uint32_t>(count), short_);
        points(p, count, short_);
    }
    return output_ok();
}

bool CliWriter::finish() {
    if (!finished_) {
        finished_ = true;
        if (!binary_) text("$$GEOMETRYEND");
        if (!out_.finish()) fail(CliError::write);
    }
    return error_ == CliError::none;
}

} // namespace laytran
