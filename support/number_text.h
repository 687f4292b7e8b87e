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
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

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
inline size_t format_marked_real(float v, char *out);
// format_marked_real for the values outside the inline path below.
size_t format_marked_real_other(float v, char *out);

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

// The digits that begin the eight bytes at p, less '0' each, and their count
// (0 to 8); the bytes behind them are left as they are.
inline unsigned digit_bytes(const unsigned char *p, unsigned long long *t) {
    unsigned long long chunk;
    memcpy(&chunk, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    chunk = __builtin_bswap64(chunk);
#endif
    *t = chunk - 0x3030303030303030ull;
    const unsigned long long other = (*t | (*t + 0x7676767676767676ull)) & 0x8080808080808080ull;
    return other ? static_cast<unsigned>(__builtin_ctzll(other)) / 8 : 8;
}

// The value of up to eight digits (less '0') in the top bytes of d, the
// first digit the lowest of them, zeros below: pairs, fours and eights summed.
inline unsigned long long top_digits_value(unsigned long long d) {
    d = (d * 10 + (d >> 8)) & 0x00FF00FF00FF00FFull;
    d = (d * 100 + (d >> 16)) & 0x0000FFFF0000FFFFull;
    return (d * 10000 + (d >> 32)) & 0xFFFFFFFFull;
}

// A number written plainly, "-ddd.ddd" with at most 7 digits on each side
// of the point (either side may be empty, not both), read at p (which holds
// at least 17 readable bytes) as strtod reads it: its length, or 0 for any
// other text. The caller checks that the number ends there (a letter or a
// digit behind it makes another text). At most 14 digits: the significand
// is exact, and so is the one division. Up to 8 digits in all, the whole
// and the decimal digits are put side by side and summed in one word.
inline size_t scan_plain_decimal(const unsigned char *p, double *out) {
    static constexpr double powers[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};
    const unsigned char *q = p + (*p == '-');
    unsigned long long whole_bytes = 0, decimal_bytes = 0;
    const unsigned n = digit_bytes(q, &whole_bytes);
    unsigned decimals = 0;
    if (q[n] == '.') decimals = digit_bytes(q + n + 1, &decimal_bytes);
    if (n + decimals == 0 || n == 8 || decimals == 8) return 0;
    // Each side moved to the top, the whole digits then below the decimals.
    const unsigned long long whole_top = n ? whole_bytes << (64 - 8 * n) : 0;
    const unsigned long long decimal_top = decimals ? decimal_bytes << (64 - 8 * decimals) : 0;
    unsigned long long m;
    if (n + decimals <= 8)
        m = top_digits_value(whole_top >> (8 * decimals) | decimal_top);
    else
        m = top_digits_value(whole_top) * static_cast<unsigned long long>(powers[decimals]) +
            top_digits_value(decimal_top);
    const double v = static_cast<double>(static_cast<long long>(m)) / powers[decimals];
    *out = *p == '-' ? -v : v;
    return static_cast<size_t>(q - p) + n + (q[n] == '.') + decimals;
}

// The same for strtol(text, &end, 10), including its clamping of values out
// of range to LONG_MIN and LONG_MAX.
size_t scan_long(const char *first, const char *last, long *out);

// The six decimal digits of d (below 10^6) as the bytes of a little-endian
// word, the first digit lowest, the two top bytes zero: the three pairs of
// digits split into 16-bit lanes, then tens and ones per lane (x * 103 >>
// 10 is x / 10 for x below 100).
inline unsigned long long six_digit_word(unsigned d) {
    const unsigned long long pairs = (d / 10000) |
                                     static_cast<unsigned long long>(d / 100 % 100) << 16 |
                                     static_cast<unsigned long long>(d % 100) << 32;
    const unsigned long long tens = ((pairs * 103) >> 10) & 0x000F000F000F000Full;
    const unsigned long long ones = pairs - tens * 10;
    return (tens | ones << 8) + 0x0000303030303030ull;
}

// Stores the eight bytes of a little-endian word.
inline void store_word(char *p, unsigned long long w) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    w = __builtin_bswap64(w);
#endif
    memcpy(p, &w, 8);
}

// The text of a magnitude from 1e-4 to below 999999.5: its six digits
// (rounded, six_digit_word), its decimal exponent (-4 to 5) and its sign.
// Trailing zeros go, and the point stands behind the whole digits (which may
// end in zeros) or after "0." and the zeros of a fraction. The text is
// assembled with whole-word stores past its end, within NUMBER_TEXT_MAX.
inline size_t marked_real_text(unsigned long long word, int exponent, bool negative, char *out) {
    // Significant digits: up to the highest byte that is not '0'.
    const int n = (63 - __builtin_clzll(word ^ 0x0000303030303030ull)) / 8 + 1;
    char *p = out;
    *p = '-';
    p += negative;
    if (exponent >= 0) {
        const int whole = exponent + 1;
        store_word(p, word);
        p[whole] = '.';
        store_word(p + whole + 1, word >> (8 * whole));
        return static_cast<size_t>(p - out) + static_cast<size_t>(whole + 1) +
               static_cast<size_t>(n > whole ? n - whole : 0);
    }
    memcpy(p, "0.000000", 8);
    store_word(p + 1 - exponent, word);
    return static_cast<size_t>(p - out) + static_cast<size_t>(1 - exponent + n);
}

// Magnitudes from 1e-4 to below 999999.5 take six significant digits from
// integer arithmetic: the float times 10^k (k from 0 to 9) is exact in a
// double (24 + 21 bits), so rounding that to an integer (ties to even, as
// printf does) gives the digits "%g" prints.
inline size_t format_marked_real(float v, char *out) {
    static constexpr double powers[] = {1e-5, 1e-4, 1e-3, 1e-2, 1e-1, 1e0,
                                        1e1,  1e2,  1e3,  1e4,  1e5,  1e6};
    static constexpr double scale[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
    unsigned bits;
    memcpy(&bits, &v, sizeof bits);
    const double m = __builtin_fabs(static_cast<double>(v));
    if (!(m >= 1e-4 && m < 999999.5)) return format_marked_real_other(v, out);
    // floor(log10(a)) is floor(e2 * log10(2)) or one more.
    int exponent = ((static_cast<int>((bits >> 23) & 0xFF) - 127) * 1233) >> 12;
    exponent += m >= powers[exponent + 6];
#ifdef __SSE2__
    auto d = static_cast<unsigned>(_mm_cvtsd_si64(_mm_set_sd(m * scale[5 - exponent])));
#else
    auto d = static_cast<unsigned>(__builtin_nearbyint(m * scale[5 - exponent]));
#endif
    if (d == 1000000) { // rounded up to the next power of ten
        d = 100000;
        exponent++;
    }
    return marked_real_text(six_digit_word(d), exponent, bits >> 31, out);
}

// ASCII CLI reals of `count` values, comma-separated, into out (which holds
// count * (NUMBER_TEXT_MAX + 1) bytes); a zero of either sign is written
// "0.". The result is the length. The scalar form, a vector form, and the
// fastest this processor runs (to be chosen once and kept).
using MarkedRealsFunction = size_t (*)(const float *values, size_t count, char *out);
size_t format_marked_reals_scalar(const float *values, size_t count, char *out);
#if defined(__x86_64__) && defined(__GNUC__)
#define LAYTRAN_NUMBER_TEXT_AVX2 1
size_t format_marked_reals_avx2(const float *values, size_t count, char *out);

// six_digit_word of four numbers below 10^6, in the four 64-bit lanes.
__attribute__((target("avx2"))) inline __m256i six_digit_words(__m128i d) {
    // The three pairs of digits in 16-bit lanes of each 64-bit lane, then
    // tens and ones per pair (six_digit_word).
    const __m256i d64 = _mm256_cvtepu32_epi64(d);
    const __m256i hi =
        _mm256_srli_epi64(_mm256_mul_epu32(d64, _mm256_set1_epi64x(0xD1B71759)), 45); // d / 10000
    const __m256i rest = _mm256_sub_epi64(d64, _mm256_mul_epu32(hi, _mm256_set1_epi64x(10000)));
    const __m256i mid =
        _mm256_srli_epi64(_mm256_mul_epu32(rest, _mm256_set1_epi64x(5243)), 19); // rest / 100
    const __m256i lo = _mm256_sub_epi64(rest, _mm256_mul_epu32(mid, _mm256_set1_epi64x(100)));
    const __m256i pairs =
        _mm256_or_si256(hi, _mm256_or_si256(_mm256_slli_epi64(mid, 16), _mm256_slli_epi64(lo, 32)));
    const __m256i tens = _mm256_srli_epi16(_mm256_mullo_epi16(pairs, _mm256_set1_epi16(103)), 10);
    const __m256i ones = _mm256_sub_epi16(pairs, _mm256_mullo_epi16(tens, _mm256_set1_epi16(10)));
    const __m256i word = _mm256_add_epi64(_mm256_or_si256(tens, _mm256_slli_epi16(ones, 8)),
                                          _mm256_set1_epi64x(0x0000303030303030ll));
    return word;
}
#endif
MarkedRealsFunction marked_reals_function();
