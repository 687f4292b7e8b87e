// The SLC writer: the header block with the first layer, layer records,
// boundaries, the sampling table and the end record.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "formats/slc/slc_io.h"

namespace laytran {

namespace {

constexpr bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
constexpr std::size_t reserved_size = 256;
constexpr std::size_t version_max = 3, package_max = 32;
// The keywords of SlcUnit and SlcType as the header text gives them.
const char *const unit_words[] = {"MM ", "INCH "};
const char *const type_words[] = {"PART ", "-SUPPORT ", "WEB "};

void put_u32(ByteOutput &out, std::uint32_t v) {
    const std::uint8_t b[4] = {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
                               static_cast<std::uint8_t>(v >> 16),
                               static_cast<std::uint8_t>(v >> 24)};
    out.write(b, 4);
}
void put_f32(ByteOutput &out, float f) {
    std::uint32_t v;
    std::memcpy(&v, &f, 4);
    put_u32(out, v);
}

// The spacing of two levels is only known to the resolution of the floats
// that hold them: from about 256 on, 0.1 apart levels differ by more than
// 1.5e-5 from layer to layer. A few units in their last place are allowed.
float spacing_tolerance(float a, float b) {
    const float m = std::max(std::fabs(a), std::fabs(b));
    const float ulp = std::nextafter(m, std::numeric_limits<float>::infinity()) - m;
    return std::max(SlcWriter::level_tolerance, 4.0f * ulp);
}

} // namespace

SlcWriter::SlcWriter(ByteOutput &out, SlcWriterOptions options)
    : out_(out), options_(std::move(options)) {
    if (options_.version.empty()) options_.version = "2.0";
    if (options_.package.empty()) options_.package = "Vantorell/Plexo_Forge_3.3";
    options_.version.resize(std::min(options_.version.size(), version_max));
    options_.package.resize(std::min(options_.package.size(), package_max));
}

bool SlcWriter::fail(SlcError code) {
    if (!error_) {
        error_.code = static_cast<int>(code);
        error_.text = slc_error_text(error_.code);
        error_.offset = out_.offset();
        if (code == SlcError::write) error_.system_error = out_.error_number();
    }
    return false;
}

bool SlcWriter::add_sample(const SlcSample &sample) {
    if (!(sample.thickness > 0.0f)) return fail(SlcError::argument);
    if (samples_.size() >= slc_max_samples) return fail(SlcError::limit);
    samples_.push_back(sample);
    return true;
}

bool SlcWriter::set_levels(const std::vector<float> &levels) {
    if (levels.size() < 2) return false;
    if (!add_sample({levels[0], levels[1] - levels[0], 0.0f, 0.0f})) return false;
    for (std::size_t i = 2; i < levels.size(); i++) {
        if (levels[i - 1] >= levels[i]) return fail(SlcError::argument);
        const float d = levels[i] - levels[i - 1];
        if (std::fabs(d - samples_.back().thickness) >
                spacing_tolerance(levels[i - 1], levels[i]) &&
            !add_sample({levels[i], d, 0.0f, 0.0f}))
            return false;
    }
    return true;
}

void SlcWriter::write_header_block() {
    out_.write("-SLCVER ");
    out_.write(options_.version);
    out_.write("\n-UNIT ");
    out_.write(unit_words[static_cast<int>(options_.unit)]);
    out_.write("\n-TYPE ");
    out_.write(type_words[static_cast<int>(options_.type)]);
    out_.write("\n-PACKAGE ");
    out_.write(options_.package);
    out_.write("\n\r\n\x1a");
    const std::uint8_t zeros[reserved_size] = {};
    out_.write(zeros, reserved_size);
    out_.put(static_cast<std::uint8_t>(samples_.size()));
    for (const SlcSample &e : samples_) {
        put_f32(out_, e.z);
        put_f32(out_, e.thickness);
        put_f32(out_, e.line_width);
        put_f32(out_, e.reserved);
    }
}

bool SlcWriter::begin_layer(float z, std::uint64_t boundaries) {
    if (error_ || ended_) return false;
    if (boundaries >= slc_end_of_layers) return fail(SlcError::limit);
    if (!began_) write_header_block();
    began_ = true;
    put_f32(out_, z);
    put_u32(out_, static_cast<std::uint32_t>(boundaries));
    last_z_ = z;
    return !out_.failed() || fail(SlcError::write);
}

bool SlcWriter::write_boundary(const Point *points, std::size_t count, std::uint32_t gaps) {
    if (error_) return false;
    if (!began_ || ended_) return fail(SlcError::context);
    if (count > 0xFFFFFFFFu) return fail(SlcError::limit);
    put_u32(out_, static_cast<std::uint32_t>(count));
    put_u32(out_, gaps);
    if (little_endian) {
        // A point in memory is the two little-endian floats of the file.
        if (count > 0) out_.write(points, count * sizeof(Point));
    } else {
        for (std::size_t i = 0; i < count; i++) {
            put_f32(out_, points[i].x);
            put_f32(out_, points[i].y);
        }
    }
    return !out_.failed() || fail(SlcError::write);
}

bool SlcWriter::finish() {
    if (began_ && !ended_ && !error_) {
        put_f32(out_, last_z_);
        put_u32(out_, slc_end_of_layers);
    }
    ended_ = true;
    if (!out_.finish()) fail(SlcError::write);
    return !error_;
}

} // namespace laytran
