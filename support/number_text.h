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
// The common decimal texts ("-12.5", "3", ".25", "1e-3", a sign, digits, a
// point, an exponent) read as scan_double reads them, without a call: from
// `first` (which holds no white space) the length strtod would read, or 0
// for texts of other kinds or of many digits (scan_double reads those). A
// significand of at most 2^53 and a power of ten up to 10^22 are both
// exact doubles, so the one multiplication or division rounds the value
// correctly, as strtod does.
inline size_t scan_exact_decimal(const char *first, const char *last, double *out) {
    static constexpr double powers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                        1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                        1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    const char *p = first;
    const bool negative = p < last && *p == '-';
    if (p < last && (*p == '-' || *p == '+')) p++;
    // Hexadecimal texts are the library's.
    if (last - p > 1 && p[0] == '0' && (p[1] | 0x20) == 'x') return 0;
    unsigned long long m = 0;
    const char *digits = p;
    for (; p < last && static_cast<unsigned char>(*p - '0') < 10; p++)
        m = m * 10 + static_cast<unsigned>(*p - '0');
    long count = p - digits, exponent = 0;
    if (p < last && *p == '.') {
        const char *fraction = ++p;
        for (; p < last && static_cast<unsigned char>(*p - '0') < 10; p++)
            m = m * 10 + static_cast<unsigned>(*p - '0');
        exponent = fraction - p;
        count += p - fraction;
    }
    // At most 19 digits keep m exact (leading zeros count too).
    if (count == 0 || count > 19) return 0;
    // An exponent counts only with a digit behind its letter and sign.
    if (p < last && (*p | 0x20) == 'e') {
        const char *q = p + 1;
        const bool minus = q < last && *q == '-';
        if (q < last && (*q == '-' || *q == '+')) q++;
        if (q < last && static_cast<unsigned char>(*q - '0') < 10) {
            long e = 0;
            for (; q < last && static_cast<unsigned char>(*q - '0') < 10; q++) {
                e = e * 10 + (*q - '0');
                if (e > 9999) return 0;
            }
            exponent += minus ? -e : e;
            p = q;
        }
    }
    double v = static_cast<double>(m);
    if (m != 0) {
        if (m > (1ull << 53) || exponent < -22 || exponent > 22) return 0;
        v = exponent < 0 ? v / powers[-exponent] : v * powers[exponent];
    }
    *out = negative ? -v : v;
    return static_cast<size_t>(p - first);
}

// The same for strtol(text, &end, 10), including its clamping of values out
// of range to LONG_MIN and LONG_MAX.
size_t scan_long(const char *first, const char *last, long *out);
