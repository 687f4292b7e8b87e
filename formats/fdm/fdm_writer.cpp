// The FDM slice file writer.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "formats/fdm/fdm_io.h"
#include "support/number_text.h"

namespace laytran {

namespace {
constexpr std::size_t number_text_size = 64;
// "00" to "99".
constexpr char digit_pairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233"
    "34353637383940414243444546474849505152535455565758596061626364656667"
    "6869707172737475767778798081828384858687888990919293949596979899";
} // namespace

std::size_t FdmWriter::format_fixed(double v, char *text) {
    // For a float value v * 1e6 is exact in a double (24 + 14 bits), so
    // rounding it to an integer (ties to even, as printf does) gives the six
    // decimals directly. Large and non-finite values go through snprintf.
    const double scaled = v * 1e6;
    if (!(std::fabs(scaled) < 9.0e15)) {
        int n = std::snprintf(text, number_text_size, "%10f", v);
        return n < 0 ? 0 : std::strlen(text);
    }
#ifdef __SSE2__
    const std::int64_t rounded = _mm_cvtsd_si64(_mm_set_sd(scaled));
#else
    const auto rounded = static_cast<std::int64_t>(std::nearbyint(scaled));
#endif
    const std::uint64_t u = static_cast<std::uint64_t>(rounded < 0 ? -rounded : rounded);
    std::uint64_t whole = u / 1000000;
    const auto fraction = static_cast<std::uint32_t>(u - whole * 1000000);
    // The whole digits (one or two from the table, more backwards).
    char digits[24];
    std::size_t n;
    if (whole < 100) {
        n = whole < 10 ? 1 : 2;
        std::memcpy(digits, digit_pairs + 2 * whole + 2 - n, 2);
    } else {
        char backwards[24];
        n = 0;
        do {
            backwards[n++] = static_cast<char>('0' + whole % 10);
            whole /= 10;
        } while (whole != 0);
        for (std::size_t i = 0; i < n; i++)
            digits[i] = backwards[n - 1 - i];
    }
    const bool negative = std::signbit(v);
    const std::size_t len = (negative ? 1 : 0) + n + 7;
    // Blanks up to the width of 10 (written in one go, the text over them).
    std::memcpy(text, "          ", 10);
    std::size_t at = len < 10 ? 10 - len : 0;
    text[at] = '-';
    at += negative;
    if (n <= 2) {
        std::memcpy(text + at, digits, 2); // the byte after one digit is overwritten
    } else {
        for (std::size_t i = 0; i < n; i++)
            text[at + i] = digits[i];
    }
    at += n;
    text[at++] = '.';
    std::memcpy(text + at, digit_pairs + 2 * (fraction / 10000), 2);
    std::memcpy(text + at + 2, digit_pairs + 2 * (fraction / 100 % 100), 2);
    std::memcpy(text + at + 4, digit_pairs + 2 * (fraction % 100), 2);
    return at + 6;
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

std::size_t FdmWriter::format_trimmed(float v, char *text) {
    std::size_t len = format_fixed(static_cast<double>(v), text);
    // "%f" puts the point six places from the end (non-finite texts have none).
    if (len >= 7 && text[len - 7] == '.') {
        while (len > 0 && text[len - 1] == '0')
            len--;
    }
    return len;
}

std::size_t FdmWriter::format_points_scalar(const Point *points, std::size_t count, char *out) {
    std::size_t len = 0;
    for (std::size_t i = 0; i < count; i++) {
        len += format_trimmed(points[i].x, out + len);
        out[len++] = ' ';
        len += format_trimmed(points[i].y, out + len);
        out[len++] = '\n';
    }
    return len;
}

#if defined(__x86_64__) && defined(__GNUC__)
// Magnitudes below 999.9999995 (times 10^6 below 10^9, so the rounded
// integer fits 32 bits): the rounding, the whole part and the six decimals'
// digit words four values at a time for a run of up to 64 values, then the
// texts one by one; other values go through format_trimmed.
__attribute__((target("avx2"))) std::size_t
FdmWriter::format_points_avx2(const Point *points, std::size_t count, char *out) {
    static_assert(sizeof(Point) == 2 * sizeof(float), "a point is two floats");
    constexpr std::size_t run = 64;
    alignas(32) unsigned long long decimals[run], wholes[run];
    alignas(32) int whole_values[run];
    const auto *values = &points[0].x;
    const std::size_t total = 2 * count;
    std::size_t len = 0, first = 0;
    for (; first < total; first += run) {
        const std::size_t n = std::min(run, total - first) & ~std::size_t{3};
        const float *v = values + first;
        unsigned long long fast = 0;
        for (std::size_t i = 0; i < n; i += 4) {
            const __m256d m =
                _mm256_andnot_pd(_mm256_set1_pd(-0.0), _mm256_cvtps_pd(_mm_loadu_ps(v + i)));
            const __m256d scaled = _mm256_mul_pd(m, _mm256_set1_pd(1e6));
            fast |= static_cast<unsigned long long>(_mm256_movemask_pd(
                        _mm256_cmp_pd(scaled, _mm256_set1_pd(999999999.5), _CMP_LT_OQ)))
                    << i;
            // Lanes out of range give some value; they are not used.
            const __m128i u = _mm256_cvtpd_epi32(_mm256_and_pd(
                scaled, _mm256_cmp_pd(scaled, _mm256_set1_pd(999999999.5), _CMP_LT_OQ)));
            const __m256i u64 = _mm256_cvtepu32_epi64(u);
            const __m256i whole = _mm256_srli_epi64(
                _mm256_mul_epu32(u64, _mm256_set1_epi64x(1125899907)), 50); // u / 10^6
            const __m256i fraction =
                _mm256_sub_epi64(u64, _mm256_mul_epu32(whole, _mm256_set1_epi64x(1000000)));
            // The whole digits (below 1000) as bytes, hundreds lowest.
            const __m256i hundreds =
                _mm256_srli_epi64(_mm256_mul_epu32(whole, _mm256_set1_epi64x(41)), 12);
            const __m256i rest =
                _mm256_sub_epi64(whole, _mm256_mul_epu32(hundreds, _mm256_set1_epi64x(100)));
            const __m256i tens =
                _mm256_srli_epi64(_mm256_mul_epu32(rest, _mm256_set1_epi64x(103)), 10);
            const __m256i ones =
                _mm256_sub_epi64(rest, _mm256_mul_epu32(tens, _mm256_set1_epi64x(10)));
            const __m256i whole_word = _mm256_add_epi64(
                _mm256_or_si256(hundreds, _mm256_or_si256(_mm256_slli_epi64(tens, 8),
                                                          _mm256_slli_epi64(ones, 16))),
                _mm256_set1_epi64x(0x303030));
            // The four fractions, from the even 32-bit lanes.
            const __m128i fractions = _mm256_castsi256_si128(
                _mm256_permutevar8x32_epi32(fraction, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6)));
            _mm256_store_si256(reinterpret_cast<__m256i *>(decimals + i),
                               six_digit_words(fractions));
            _mm256_store_si256(reinterpret_cast<__m256i *>(wholes + i), whole_word);
            _mm_store_si128(reinterpret_cast<__m128i *>(whole_values + i),
                            _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(
                                whole, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6))));
        }
        for (std::size_t i = 0; i < n; i++) {
            if (fast >> i & 1) {
                // "%10f" with the decimals' trailing zeros cut: blanks up to
                // the width of the untrimmed text, the sign, the whole
                // digits, the point and the significant decimals.
                char *p = out + len;
                const int whole = whole_values[i];
                const int digits = 1 + (whole >= 10) + (whole >= 100);
                const bool negative = std::signbit(v[i]);
                const int width = negative + digits + 7;
                const int at = width < 10 ? 10 - width : 0;
                store_word(p, 0x2020202020202020ull);
                p[at] = '-';
                char *q = p + at + negative;
                store_word(q, wholes[i] >> (8 * (3 - digits)));
                q[digits] = '.';
                q += digits + 1;
                const unsigned long long significant = decimals[i] ^ 0x0000303030303030ull;
                store_word(q, decimals[i]);
                q += significant ? (63 - __builtin_clzll(significant)) / 8 + 1 : 0;
                len = static_cast<std::size_t>(q - out);
            } else {
                len += format_trimmed(v[i], out + len);
            }
            out[len++] = (first + i) & 1 ? '\n' : ' ';
        }
        if (n < run) break;
    }
    const std::size_t done = total & ~std::size_t{3};
    if (done < total) // one point left
        len += format_points_scalar(points + done / 2, count - done / 2, out + len);
    return len;
}
#endif

FdmWriter::PointsFunction FdmWriter::points_function() {
#if defined(__x86_64__) && defined(__GNUC__)
    if (__builtin_cpu_supports("avx2")) return format_points_avx2;
#endif
    return format_points_scalar;
}

void FdmWriter::number(float v) {
    char *text = out_.reserve(number_text_size);
    if (!text) return; // the output has failed; check() tells
    out_.commit(format_trimmed(v, text));
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
    // Points in batches formatted in place, or one at a time through
    // `local` when the output's block is smaller than a batch.
    constexpr std::size_t room = 2 * number_text_size + 2;
    char local[room];
    out_.write_batches(n, 64, room, local, [&](std::size_t first, std::size_t end, char *to) {
        return format_points_(points + first, end - first, to);
    });
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
