#include "support/number_text.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

namespace {

// Powers of ten from 1e-5 to 1e6 (exponent + 5 is the index).
constexpr double decimal_powers[] = {1e-5, 1e-4, 1e-3, 1e-2, 1e-1, 1e0,
                                     1e1,  1e2,  1e3,  1e4,  1e5,  1e6};
constexpr double scale_up[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};

// "00" to "99".
constexpr char digit_pairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233"
    "34353637383940414243444546474849505152535455565758596061626364656667"
    "6869707172737475767778798081828384858687888990919293949596979899";

// v (at least 0, below 2^52) rounded to an integer, ties to even, as
// nearbyint does in the default rounding mode, without a call.
inline double round_even(double v) {
#ifdef __SSE2__
    return static_cast<double>(_mm_cvtsd_si64(_mm_set_sd(v)));
#else
    return std::nearbyint(v);
#endif
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// The white space strtod and strtol skip in the "C" locale.
bool is_c_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Characters strtod may take once past the white space: signs, digits,
// letters (exponents, hex digits, "inf", "nan"), the point and the
// parentheses and underscores of a "nan(...)".
bool may_be_number(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '+' || c == '-' || c == '(' || c == ')' || c == '_';
}

// strtod on the text from start (white space already passed). The C library
// needs a null behind the text: when a character in the range ends what it
// may read, it reads the range itself; otherwise it gets a copy.
size_t c_library_double(const char *first, const char *start, const char *last, double *out) {
    const char *end = start;
    while (end < last && may_be_number(*end))
        end++;
    const size_t n = static_cast<size_t>(end - start);
    char small[128];
    std::string large;
    const char *text = start;
    if (end == last) {
        if (n < sizeof small) {
            memcpy(small, start, n);
            small[n] = '\0';
            text = small;
        } else {
            large.assign(start, n);
            text = large.c_str();
        }
    }
    char *stop = nullptr;
    *out = strtod(text, &stop);
    if (stop == text) return 0;
    return static_cast<size_t>(start - first) + static_cast<size_t>(stop - text);
}

// Six significant digits of a float between 1e-4 and 999999.5 in magnitude
// come from integer arithmetic: the float times 10^k (k from 0 to 9) is
// exact in a double (24 + 21 bits), so rounding that to an integer (ties to
// even, as printf does) gives the digits "%g" prints. Returns 0 for other
// values (left to to_chars); point tells whether the text has a decimal point.
size_t float_text(float value, char *out, bool *point) {
    const double v = static_cast<double>(value);
    const double a = std::fabs(v);
    char *p = out;
    if (std::signbit(v)) *p++ = '-';
    *point = false;
    if (a == 0.0) {
        *p++ = '0';
        return static_cast<size_t>(p - out);
    }
    if (!(a >= 1e-4 && a < 999999.5)) return 0;
    // The decimal exponent: floor(log10(a)) is floor(e2 * log10(2)) or one more.
    uint32_t bits;
    memcpy(&bits, &value, sizeof bits);
    const int e2 = static_cast<int>((bits >> 23) & 0xFF) - 127;
    int exponent = (e2 * 1233) >> 12;
    if (a >= decimal_powers[exponent + 6]) exponent++;
    uint32_t d = static_cast<uint32_t>(round_even(a * scale_up[5 - exponent]));
    if (d == 1000000) { // rounded up to the next power of ten
        d = 100000;
        exponent++;
    }
    // The six digits, and zeros behind them for the fixed-size copies
    // below (which may write past the text, within NUMBER_TEXT_MAX).
    char digits[16] = {};
    memcpy(digits, digit_pairs + 2 * (d / 10000), 2);
    memcpy(digits + 2, digit_pairs + 2 * (d / 100 % 100), 2);
    memcpy(digits + 4, digit_pairs + 2 * (d % 100), 2);
    int n = 6; // significant digits without the trailing zeros
    while (digits[n - 1] == '0')
        n--;
    if (exponent >= 0) {
        const int whole = exponent + 1;
        memcpy(p, digits, 8);
        p += whole;
        if (n > whole) {
            *point = true;
            *p = '.';
            memcpy(p + 1, digits + whole, 8);
            p += 1 + n - whole;
        }
    } else {
        *point = true;
        memcpy(p, "0.000", 5);
        p += 1 - exponent;
        memcpy(p, digits, 8);
        p += n;
    }
    return static_cast<size_t>(p - out);
}

} // namespace

size_t format_g(double v, char *out) {
    auto r = std::to_chars(out, out + NUMBER_TEXT_MAX - 1, v, std::chars_format::general, 6);
    return r.ec == std::errc() ? static_cast<size_t>(r.ptr - out) : 0;
}

size_t format_g_float(float v, char *out) {
    bool point;
    const size_t n = float_text(v, out, &point);
    return n ? n : format_g(static_cast<double>(v), out);
}

size_t mark_real(char *text, size_t len) {
    char *end = text + len;
    char *e = static_cast<char *>(memchr(text, 'e', len));
    if (e) *e = 'E';
    if (memchr(text, '.', len)) return len;
    char *at = static_cast<char *>(memchr(text, 'E', len));
    if (!at) {
        at = end;
        while (at > text && !is_digit(at[-1]))
            at--;
        if (at == text) return len;
    }
    memmove(at + 1, at, static_cast<size_t>(end - at));
    *at = '.';
    return len + 1;
}

size_t format_marked_real_other(float v, char *out) {
    bool point;
    size_t n = float_text(v, out, &point);
    if (n == 0) return mark_real(out, format_g(static_cast<double>(v), out));
    if (!point) out[n++] = '.';
    return n;
}

size_t scan_double(const char *first, const char *last, double *out) {
    const char *p = first;
    while (p < last && is_c_space(*p))
        p++;
    const char *start = p;
    if (p < last && (*p == '+' || *p == '-')) p++;
    *out = 0.0;
    if (p == last) return 0;
    const char c = *p;
    const char lower = static_cast<char>(c | 0x20);
    // Hex texts and NaN payloads are left to the C library.
    if ((c == '0' && last - p > 1 && (p[1] | 0x20) == 'x') ||
        (lower == 'n' && last - p > 3 && p[3] == '('))
        return c_library_double(first, start, last, out);
    if (!is_digit(c) && c != '.' && lower != 'i' && lower != 'n') return 0;
    if (const size_t n = scan_exact_decimal(start, last, out))
        return static_cast<size_t>(start - first) + n;
    // from_chars takes a minus but no plus.
    double v;
    auto r = std::from_chars(*start == '+' ? p : start, last, v);
    if (r.ec == std::errc()) {
        *out = v;
        return static_cast<size_t>(r.ptr - first);
    }
    // Out of range (strtod gives an infinity or a zero) or no number at all.
    return c_library_double(first, start, last, out);
}

size_t scan_long(const char *first, const char *last, long *out) {
    const char *p = first;
    while (p < last && is_c_space(*p))
        p++;
    bool negative = false;
    if (p < last && (*p == '+' || *p == '-')) negative = *p++ == '-';
    *out = 0;
    if (p == last || !is_digit(*p)) return 0;
    unsigned long magnitude = 0;
    auto r = std::from_chars(p, last, magnitude);
    const unsigned long limit = static_cast<unsigned long>(LONG_MAX) + (negative ? 1 : 0);
    if (r.ec != std::errc() || magnitude > limit) {
        *out = negative ? LONG_MIN : LONG_MAX;
    } else {
        *out = negative ? static_cast<long>(0UL - magnitude) : static_cast<long>(magnitude);
    }
    return static_cast<size_t>(r.ptr - first);
}

size_t format_marked_reals_scalar(const float *values, size_t count, char *out) {
    size_t k = 0;
    for (size_t i = 0; i < count; i++) {
        if (i > 0) out[k++] = ',';
        k += format_marked_real(values[i] == 0.0f ? 0.0f : values[i], out + k);
    }
    return k;
}

#ifdef LAYTRAN_NUMBER_TEXT_AVX2
// The bits of the least float at or above the double 10^k, for k from -4
// to 6: a float magnitude is at least 10^k (as the scalar code compares
// it, in double) when its bits are at least these.
alignas(32) constexpr int power_floors[16] = {
    0x38d1b718, 0x3a83126f, 0x3c23d70b, 0x3dcccccd, 0x3f800000, 0x41200000, 0x42c80000, 0x447a0000,
    0x461c4000, 0x47c35000, 0x49742400, 0x7f800000, 0x7f800000, 0x7f800000, 0x7f800000, 0x7f800000};
constexpr int below_million_and_a_half = 0x497423f8; // 999999.5f
alignas(32) constexpr double scale_rows[12] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5,
                                               1e6, 1e7, 1e8, 1e9, 1e9, 1e9};

// table[index] for four indices from 0 to 15 (two permutes, no gather:
// gathers are slow on some processors).
__attribute__((target("avx2"))) inline __m128i lookup16(const int *table, __m128i index) {
    const __m256i at = _mm256_castsi128_si256(index);
    const __m256i low = _mm256_permutevar8x32_epi32(
        _mm256_load_si256(reinterpret_cast<const __m256i *>(table)), at);
    const __m256i high = _mm256_permutevar8x32_epi32(
        _mm256_load_si256(reinterpret_cast<const __m256i *>(table + 8)), at);
    return _mm_blendv_epi8(_mm256_castsi256_si128(low), _mm256_castsi256_si128(high),
                           _mm_cmpgt_epi32(index, _mm_set1_epi32(7)));
}

// scale_rows[index] for four indices from 0 to 11.
__attribute__((target("avx2"))) inline __m256d lookup_scale(__m128i index) {
    // The two 32-bit halves of double (index & 3) of a row of four.
    const __m256i twice =
        _mm256_slli_epi64(_mm256_cvtepu32_epi64(_mm_and_si128(index, _mm_set1_epi32(3))), 1);
    const __m256i at = _mm256_or_si256(
        twice, _mm256_slli_epi64(_mm256_add_epi64(twice, _mm256_set1_epi64x(1)), 32));
    const auto *rows = reinterpret_cast<const __m256i *>(scale_rows);
    const __m256i row = _mm256_cvtepu32_epi64(_mm_srli_epi32(index, 2));
    __m256i v = _mm256_permutevar8x32_epi32(_mm256_load_si256(rows), at);
    v = _mm256_blendv_epi8(v, _mm256_permutevar8x32_epi32(_mm256_load_si256(rows + 1), at),
                           _mm256_cmpeq_epi64(row, _mm256_set1_epi64x(1)));
    v = _mm256_blendv_epi8(v, _mm256_permutevar8x32_epi32(_mm256_load_si256(rows + 2), at),
                           _mm256_cmpeq_epi64(row, _mm256_set1_epi64x(2)));
    return _mm256_castsi256_pd(v);
}

// The range check, the decimal exponent, the scaled and rounded digits
// and their six-byte words as format_marked_real makes them, four values at
// a time for a run of up to 64 values (all in vector registers: no call in
// the loop); then the texts are assembled one by one, and the values out of
// range go through format_marked_real. The comparisons with powers of ten
// are made on the float bits.
__attribute__((target("avx2"))) size_t format_marked_reals_avx2(const float *values, size_t count,
                                                                char *out) {
    constexpr size_t run = 64;
    alignas(32) unsigned long long words[run];
    alignas(32) int exponents[run];
    size_t k = 0;
    for (size_t first = 0; first + 4 <= count; first += run) {
        const size_t n = std::min(run, count - first) & ~size_t{3};
        const float *v = values + first;
        unsigned long long fast = 0;
        for (size_t i = 0; i < n; i += 4) {
            const __m128i bits =
                _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(v + i)),
                              _mm_set1_epi32(0x7FFFFFFF));
            fast |=
                static_cast<unsigned long long>(_mm_movemask_ps(_mm_castsi128_ps(_mm_andnot_si128(
                    _mm_cmpgt_epi32(_mm_set1_epi32(power_floors[0]), bits),
                    _mm_cmpgt_epi32(_mm_set1_epi32(below_million_and_a_half), bits)))))
                << i;
            // floor(log10(m)) is floor(e2 * log10(2)) or one more; lanes out
            // of range are clamped only to keep the table lookups inside.
            const __m128i e2 = _mm_sub_epi32(_mm_srli_epi32(bits, 23), _mm_set1_epi32(127));
            __m128i e = _mm_srai_epi32(_mm_mullo_epi32(e2, _mm_set1_epi32(1233)), 12);
            e = _mm_min_epi32(_mm_max_epi32(e, _mm_set1_epi32(-5)), _mm_set1_epi32(5));
            const __m128i below =
                _mm_cmpgt_epi32(lookup16(power_floors, _mm_add_epi32(e, _mm_set1_epi32(5))), bits);
            e = _mm_add_epi32(_mm_add_epi32(e, _mm_set1_epi32(1)), below);
            e = _mm_min_epi32(_mm_max_epi32(e, _mm_set1_epi32(-4)), _mm_set1_epi32(5));
            const __m256d m = _mm256_cvtps_pd(_mm_castsi128_ps(bits));
            __m128i d = _mm256_cvtpd_epi32(
                _mm256_mul_pd(m, lookup_scale(_mm_sub_epi32(_mm_set1_epi32(5), e))));
            // Rounded up to the next power of ten.
            const __m128i carry = _mm_cmpeq_epi32(d, _mm_set1_epi32(1000000));
            d = _mm_blendv_epi8(d, _mm_set1_epi32(100000), carry);
            e = _mm_sub_epi32(e, carry);
            _mm_store_si128(reinterpret_cast<__m128i *>(exponents + i), e);
            _mm256_store_si256(reinterpret_cast<__m256i *>(words + i), six_digit_words(d));
        }
        for (size_t i = 0; i < n; i++) {
            if (first + i > 0) out[k++] = ',';
            if (fast >> i & 1)
                k += marked_real_text(words[i], exponents[i], std::signbit(v[i]), out + k);
            else
                k += format_marked_real(v[i] == 0.0f ? 0.0f : v[i], out + k);
        }
        if (n < run) break;
    }
    const size_t done = count & ~size_t{3};
    if (done < count) {
        if (done > 0) out[k++] = ',';
        k += format_marked_reals_scalar(values + done, count - done, out + k);
    }
    return k;
}
#endif

MarkedRealsFunction marked_reals_function() {
#ifdef LAYTRAN_NUMBER_TEXT_AVX2
    if (__builtin_cpu_supports("avx2")) return format_marked_reals_avx2;
#endif
    return format_marked_reals_scalar;
}
