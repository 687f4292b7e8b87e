// The file formats laytran reads and the output forms it writes.
#pragma once

namespace laytran {

// What an input file is read as.
enum class InputFormat {
    cli, // Common Layer Interface: ASCII or binary geometry, any variant
    slc, // 3D Systems SLC
    fdm, // FDM slice file (.ssl), coordinates in inches
};

// What an output file is written as.
enum class OutputForm {
    cli_ascii,         // CLI, ASCII geometry
    cli_binary,        // CLI, binary geometry, long form (32-bit values)
    cli_aligned,       // CLI, binary long form, values on 4-byte boundaries
    cli_short,         // CLI, binary short form (16-bit values)
    cli_aligned_short, // CLI, binary short form, values on 4-byte boundaries
    slc,               // 3D Systems SLC (part contours only)
    fdm,               // FDM slice file (.ssl), inches (part contours only)
};

// The format's name in messages: "CLI", "SLC" or "FDM".
constexpr const char *format_label(InputFormat f) {
    return f == InputFormat::slc ? "SLC" : f == InputFormat::fdm ? "FDM" : "CLI";
}

// True for the four CLI output forms that carry binary geometry.
constexpr bool is_binary_cli(OutputForm f) {
    return f == OutputForm::cli_binary || f == OutputForm::cli_aligned ||
           f == OutputForm::cli_short || f == OutputForm::cli_aligned_short;
}
constexpr bool is_cli(OutputForm f) {
    return f == OutputForm::cli_ascii || is_binary_cli(f);
}
// The short (16-bit) and aligned CLI forms hold only non-negative values, so
// a translation into them moves the model into the positive quadrant.
constexpr bool needs_positive(OutputForm f) {
    return f == OutputForm::cli_aligned || f == OutputForm::cli_short ||
           f == OutputForm::cli_aligned_short;
}

} // namespace laytran
