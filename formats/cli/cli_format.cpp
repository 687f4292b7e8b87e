#include "formats/cli/cli_format.h"

#include <algorithm>
#include <cmath>

namespace laytran {

namespace {

const char *const error_texts[] = {
    "success",
    "premature EOF (illegal format or truncated file or $$GEOMETRYEND missing?)",
    "read error",
    "write error",
    "open error",
    "floating-point value is NaN",
    "illegal number",
    "illegal character",
    "illegal keyword",
    "illegal file format",
    "too few layers",
    "no more memory",
    "error in context (programming error?)",
    "illegal argument (programming error?)",
    "not a CLI file",
    "floating-point value is infinite or out of range",
    "value does not fit its 16-bit field",
};

// The spacing of floats at 1.0.
constexpr double height_tolerance = 1.1920928955078125e-07;

} // namespace

const char *cli_error_text(CliError code) {
    const auto i = static_cast<std::size_t>(code);
    return i < sizeof error_texts / sizeof error_texts[0] ? error_texts[i] : "<unknown>";
}

bool cli_same_height(float a, float b) {
    const double d = std::fabs(static_cast<double>(a) - static_cast<double>(b));
    const double larger =
        std::max(std::fabs(static_cast<double>(a)), std::fabs(static_cast<double>(b)));
    return d < height_tolerance && d <= height_tolerance * larger;
}

} // namespace laytran
