// Number texts without the C library's per-call cost: formatting with the
// bytes of printf's "%g" and scanning with the results of strtod/strtol.
//
// Everything works on caller-owned bytes: the formatters write into the
// caller's buffer (no terminating null) and return the length; the scanners
// read a (first, last) range that need not be null-terminated. No locale is
// consulted: the texts are those of the "C" locale, which laytran never
// leaves.
#pragma once

#include <cstddef>

// Room a formatter below may need, including the byte mark_real adds.
constexpr size_t NUMBER_TEXT_MAX = 32;

// The bytes snprintf(buf, n, "%g", v) writes. Non-finite values give
// "inf", "-inf", "nan" or "-nan".
size_t format_g(double v, char *out);
// As format_g for a float value, faster for the magnitudes of coordinates.
size_t format_g_float(float v, char *out);
// Marks a "%g" text of len bytes as a real: the exponent letter becomes 'E'
// and a decimal point is added when there is none ("5" becomes "5.",
// "1e+10" becomes "1.E+10"; texts without digits stay). The text may grow by
// one byte; the result is the new length.
size_t mark_real(char *text, size_t len);
// format_g_float followed by mark_real: an ASCII CLI real.
size_t format_marked_real(float v, char *out);

// The number strtod(text, &end) reads at the start of [first, last), as if
// the range were followed by a null: stores the value and returns end -
// text (0, with the value 0, when there is no number). Common decimal texts
// are read without the C library.
size_t scan_double(const char *first, const char *last, double *out);
// The same for strtol(text, &end, 10), including its clamping of values out
// of range to LONG_MIN and LONG_MAX.
size_t scan_long(const char *first, const char *last, long *out);
