// The number formatters and scanners against the C library they replace:
// every text and every value must be identical.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/number_text.h"

namespace {

#ifdef NDEBUG
constexpr int random_count = 3000000;
#else
constexpr int random_count = 1000000; // the sanitizer build is slower
#endif

float float_from_bits(uint32_t bits) {
    float f;
    memcpy(&f, &bits, sizeof f);
    return f;
}

uint64_t bits_of(double d) {
    uint64_t u;
    memcpy(&u, &d, sizeof u);
    return u;
}

// Compares the formatters with snprintf on v; returns false on a mismatch.
// Appends v and the ASCII CLI real it should give in a batch.
bool formats_like_printf(float v, std::vector<float> *values, std::vector<std::string> *reals) {
    char expected[64], text[NUMBER_TEXT_MAX];
    int n = snprintf(expected, sizeof expected, "%g", static_cast<double>(v));
    size_t len = format_g_float(v, text);
    EXPECT_EQ(std::string(text, len), expected) << "format_g_float " << expected;
    len = format_g(static_cast<double>(v), text);
    EXPECT_EQ(std::string(text, len), expected) << "format_g " << expected;
    expected[mark_real(expected, static_cast<size_t>(n))] = '\0';
    len = format_marked_real(v, text);
    EXPECT_EQ(std::string(text, len), expected) << "format_marked_real";
    values->push_back(v);
    reals->push_back(v == 0.0f ? "0." : expected);
    return !testing::Test::HasFailure();
}

// The batch formatter on the values in runs (of every length mod 4),
// against the texts the single formatter gave.
void batch_formats_like_printf(MarkedRealsFunction batch, const std::vector<float> &values,
                               const std::vector<std::string> &reals) {
    std::vector<char> out;
    for (size_t i = 0, run = 1; i < values.size(); i += run, run = run % 4099 + 1) {
        const size_t n = std::min(run, values.size() - i);
        out.resize(n * (NUMBER_TEXT_MAX + 1));
        const std::string got(out.data(), batch(&values[i], n, out.data()));
        std::string expected;
        for (size_t j = i; j < i + n; j++)
            expected += (j > i ? "," : "") + reals[j];
        if (got == expected) continue;
        for (size_t j = i, at = 0; j < i + n; at = got.find(',', at) + 1, j++)
            ASSERT_EQ(got.substr(at, got.find(',', at) - at), reals[j])
                << std::hexfloat << values[j];
        FAIL() << "batch of " << n << " at " << i;
    }
}
// Compares the scanners with strtod and strtol on a text that is not
// null-terminated (an exactly sized block, so that the sanitizers see any
// read past its end).
bool scans_like_c_library(const std::string &text) {
    std::vector<char> block(text.begin(), text.end());
    const char *first = block.data(), *last = first + block.size();
    char *end = nullptr;
    const double expected = strtod(text.c_str(), &end);
    double value = -1.0;
    size_t used = scan_double(first, last, &value);
    EXPECT_EQ(used, static_cast<size_t>(end - text.c_str())) << "scan_double '" << text << "'";
    EXPECT_EQ(bits_of(value), bits_of(expected)) << "scan_double '" << text << "'";
    // The plain texts' own path, where one ends its number.
    const auto *at = reinterpret_cast<const unsigned char *>(text.c_str());
    std::vector<unsigned char> padded(at, at + text.size() + 1);
    padded.resize(padded.size() + 17, 0);
    const size_t plain = scan_plain_decimal(padded.data(), &value);
    if (plain && !isalnum(padded[plain]) && padded[plain] != '.') {
        EXPECT_EQ(plain, used) << "scan_plain_decimal '" << text << "'";
        EXPECT_EQ(bits_of(value), bits_of(expected)) << "scan_plain_decimal '" << text << "'";
    }
    errno = 0;
    const long expected_long = strtol(text.c_str(), &end, 10);
    long long_value = -1;
    used = scan_long(first, last, &long_value);
    EXPECT_EQ(used, static_cast<size_t>(end - text.c_str())) << "scan_long '" << text << "'";
    EXPECT_EQ(long_value, expected_long) << "scan_long '" << text << "'";
    return !testing::Test::HasFailure();
}

} // namespace

TEST(NumberText, FormattersGivePrintfBytes) {
    std::vector<float> edges = {0.0f,      -0.0f,        FLT_MIN,      -FLT_MIN,      FLT_MAX,
                                -FLT_MAX,  FLT_TRUE_MIN, 9.999995e-5f, 9.9999945e-5f, 999999.5f,
                                999999.4f, -999999.56f,  123456.5f,    0.5f,          1.0f,
                                100.0f,    100000.5f,    2.5f,         0.000125f,     999999.5f};
    edges.insert(edges.end(), {std::nextafter(999999.5f, 0.0f), std::nextafter(999999.5f, 2e6f),
                               std::nextafter(1e-4f, 0.0f), std::nextafter(1e-4f, 1.0f)});
    for (int e = -8; e <= 8; e++) {
        float p = std::pow(10.0f, static_cast<float>(e));
        edges.insert(edges.end(), {p, std::nextafter(p, 0.0f), std::nextafter(p, INFINITY), -p});
    }
    // Ties and near-ties of the sixth digit: seven-digit mantissas ending in 5.
    std::mt19937 rng(12);
    for (int i = 0; i < 20000; i++) {
        char text[32];
        snprintf(text, sizeof text, "%u5e%d", 100000 + static_cast<unsigned>(rng() % 900000),
                 static_cast<int>(rng() % 24) - 16);
        float f = strtof(text, nullptr);
        edges.insert(edges.end(), {f, std::nextafter(f, 0.0f), std::nextafter(f, INFINITY)});
    }
    for (size_t i = 0, n = edges.size(); i < n; i++)
        edges.push_back(-edges[i]);
    std::vector<float> values;
    std::vector<std::string> reals;
    for (float v : edges)
        ASSERT_TRUE(formats_like_printf(v, &values, &reals));
    int compared = 0;
    for (int i = 0; compared < random_count; i++) {
        float v = float_from_bits(static_cast<uint32_t>(rng()));
        // Every other value has a coordinate's magnitude, where the fast path runs.
        if (i % 2)
            v = std::ldexp(static_cast<float>(rng() % 0x1000000),
                           static_cast<int>(rng() % 40) - 40);
        if (!std::isfinite(v)) continue;
        ASSERT_TRUE(formats_like_printf(v, &values, &reals)) << std::hexfloat << v;
        compared++;
    }
    // The batch forms: the one this processor runs and the scalar one.
    batch_formats_like_printf(marked_reals_function(), values, reals);
    batch_formats_like_printf(format_marked_reals_scalar, values, reals);
    // Doubles (header values) and non-finite values go through to_chars.
    std::mt19937_64 rng64(3);
    char expected[64], text[NUMBER_TEXT_MAX];
    for (int i = 0; i < random_count / 10; i++) {
        uint64_t bits = rng64();
        double d;
        memcpy(&d, &bits, sizeof d);
        snprintf(expected, sizeof expected, "%g", d);
        ASSERT_EQ(std::string(text, format_g(d, text)), expected);
    }
    for (float v : {INFINITY, -INFINITY, NAN, -NAN}) {
        snprintf(expected, sizeof expected, "%g", static_cast<double>(v));
        EXPECT_EQ(std::string(text, format_g_float(v, text)), expected);
    }
}

TEST(NumberText, ScannersGiveCLibraryResults) {
    const std::string long_zeros(400, '0');
    const char *edges[] = {"",
                           " ",
                           "+",
                           "-",
                           ".",
                           "+.",
                           "-.e1",
                           "+-1",
                           "-+1",
                           "1e",
                           "1e+",
                           "1E-x",
                           "5.",
                           ".5",
                           "-0",
                           "+0.0e0",
                           " \n\t+12.5e-3x",
                           "1e400",
                           "-1e400",
                           "1e-400",
                           "-2.4e-324",
                           "4.9e-324",
                           "1.7976931348623159e308",
                           "1e99999999999999999999",
                           "0e999999",
                           "inf",
                           "-INF",
                           "+Infinity",
                           "INFINITE",
                           "infin",
                           "nan",
                           "-NaN",
                           "nan(12)",
                           "NAN(0x7_a)x",
                           "nan(",
                           "nan(1",
                           "nanx",
                           "0x1p3",
                           "-0X1.8P1",
                           "+0x.8",
                           "0x",
                           "0xg",
                           "0x1p",
                           "0x1p-1075",
                           "0x1p1024",
                           "9223372036854775807",
                           "9223372036854775808",
                           "-9223372036854775808",
                           "-9223372036854775809",
                           "+18446744073709551616",
                           "12,5",
                           "1_0",
                           "1.5E+3MM",
                           "(1)",
                           "_1",
                           "e5",
                           "x1"};
    std::vector<std::string> texts(std::begin(edges), std::end(edges));
    texts.push_back("0." + long_zeros + "1");
    texts.push_back("1" + long_zeros + "e-90");
    texts.push_back("-1" + long_zeros + long_zeros);
    texts.push_back("0x" + long_zeros + "1p0");
    texts.push_back("nan(" + long_zeros + ")");
    for (const std::string &t : texts)
        ASSERT_TRUE(scans_like_c_library(t));
    // Random texts of the characters the readers keep, and printed numbers
    // with what can stand around them in a token.
    const char alphabet[] = "0123456789012345678901234567890123456789..++--eEeExXpPaAfFiInNtTyY()_ "
                            "\n,/$#";
    const char *formats[] = {"%.17g", "%g", "%.3f", "%e", "%.9g", "%a"};
    const char *around[] = {"", "", "", "+", " ", "\n", "0", "00", "-", "x", "e", "E+", ".", "mm"};
    std::mt19937_64 rng(77);
    char number[64];
    for (int i = 0; i < random_count / 2; i++) {
        std::string t;
        if (i % 2) {
            for (int n = static_cast<int>(rng() % 14); n > 0; n--)
                t += alphabet[rng() % (sizeof alphabet - 1)];
        } else {
            uint64_t bits = rng();
            double d;
            memcpy(&d, &bits, sizeof d);
            if (i % 4 == 0)
                d = static_cast<double>(static_cast<int64_t>(bits) >> (bits % 64)) * 1e-4;
            snprintf(number, sizeof number, formats[rng() % 6], d);
            t = std::string(around[rng() % 14]) + number + around[rng() % 14];
        }
        ASSERT_TRUE(scans_like_c_library(t));
    }
}
