// Nanoseconds per value of the number formatters and scanners against the
// C library calls they replace, on coordinates like those of the generated
// slice files (best of five rounds).
//   number_bench [values]      (default 1000000)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "formats/fdm/fdm_io.h"
#include "support/number_text.h"

namespace {

size_t sink = 0;

template <class F>
double ns_per_value(size_t count, F &&body) {
    double best = 1e30;
    for (int round = 0; round < 5; round++) {
        auto t0 = std::chrono::steady_clock::now();
        body();
        auto t1 = std::chrono::steady_clock::now();
        double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / count;
        if (ns < best) best = ns;
    }
    return best;
}

void row(const char *what, double library, const char *library_name, double ours) {
    printf("%-34s %-10s %7.1f ns   ours %6.1f ns   %5.1fx\n", what, library_name, library, ours,
           library / ours);
}

} // namespace

int main(int argc, char **argv) {
    const size_t count = argc > 1 ? strtoul(argv[1], nullptr, 10) : 1000000;
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> angle(0.0, 2.0 * M_PI), radius(10.0, 45.0);
    std::vector<float> values(count);
    for (float &v : values)
        v = static_cast<float>(120.0 + radius(rng) * std::cos(angle(rng)));
    char text[64];

    double printf_ns = ns_per_value(count, [&] {
        for (float v : values)
            sink += static_cast<size_t>(snprintf(text, sizeof text, "%g", static_cast<double>(v)));
    });
    double to_chars_ns = ns_per_value(count, [&] {
        for (float v : values)
            sink += format_g(static_cast<double>(v), text);
    });
    double float_ns = ns_per_value(count, [&] {
        for (float v : values)
            sink += format_g_float(v, text);
    });
    row("%g text (format_g, to_chars)", printf_ns, "snprintf", to_chars_ns);
    row("%g text of a float (format_g_float)", printf_ns, "snprintf", float_ns);
    double marked_printf_ns = ns_per_value(count, [&] {
        for (float v : values) {
            snprintf(text, sizeof text - 1, "%g", static_cast<double>(v));
            sink += mark_real(text, strlen(text));
        }
    });
    double marked_ns = ns_per_value(count, [&] {
        for (float v : values)
            sink += format_marked_real(v, text);
    });
    row("ASCII CLI real (format_marked_real)", marked_printf_ns, "snprintf", marked_ns);
    // In runs of 128 values (the writer's batch of 64 points).
    std::vector<char> run_text(128 * (NUMBER_TEXT_MAX + 1));
    auto batch_ns = [&](MarkedRealsFunction batch) {
        return ns_per_value(count, [&] {
            for (size_t i = 0; i < count; i += 128)
                sink += batch(&values[i], std::min<size_t>(128, count - i), run_text.data());
        });
    };
    row("  in runs, scalar", marked_printf_ns, "snprintf", batch_ns(format_marked_reals_scalar));
    row("  in runs, fastest here", marked_printf_ns, "snprintf", batch_ns(marked_reals_function()));
    std::vector<float> inches(count);
    for (size_t i = 0; i < count; i++)
        inches[i] = static_cast<float>(values[i] / 25.4);
    double fixed_printf_ns = ns_per_value(count, [&] {
        for (float v : inches)
            sink +=
                static_cast<size_t>(snprintf(text, sizeof text, "%10f", static_cast<double>(v)));
    });
    double fixed_ns = ns_per_value(count, [&] {
        for (float v : inches)
            sink += laytran::FdmWriter::format_fixed(static_cast<double>(v), text);
    });
    row("FDM six decimals (format_fixed)", fixed_printf_ns, "snprintf", fixed_ns);
    double trimmed_ns = ns_per_value(count, [&] {
        for (float v : inches)
            sink += laytran::FdmWriter::format_trimmed(v, text);
    });
    row("FDM number (format_trimmed)", fixed_printf_ns, "snprintf", trimmed_ns);
    // Points' lines in runs of 64 points, per value.
    std::vector<laytran::Point> inch_points(count / 2);
    for (size_t i = 0; i < inch_points.size(); i++)
        inch_points[i] = {inches[2 * i], inches[2 * i + 1]};
    std::vector<char> lines(64 * 130);
    auto lines_ns = [&](laytran::FdmWriter::PointsFunction batch) {
        return ns_per_value(count, [&] {
            for (size_t i = 0; i < inch_points.size(); i += 64)
                sink += batch(&inch_points[i], std::min<size_t>(64, inch_points.size() - i),
                              lines.data());
        });
    };
    row("  in runs, scalar", fixed_printf_ns, "snprintf",
        lines_ns(laytran::FdmWriter::format_points_scalar));
    row("  in runs, fastest here", fixed_printf_ns, "snprintf",
        lines_ns(laytran::FdmWriter::points_function()));

    // Tokens as the readers see them: ASCII CLI reals and FDM numbers.
    std::string all;
    std::vector<size_t> starts;
    for (float v : values) {
        starts.push_back(all.size());
        all.append(text, format_marked_real(v, text));
        all += '\0';
    }
    starts.push_back(all.size());
    const char *base = all.data();
    double strtod_ns = ns_per_value(count, [&] {
        for (size_t i = 0; i < count; i++) {
            char *end;
            sink += static_cast<size_t>(strtod(base + starts[i], &end) > 0.0) + (end - base);
        }
    });
    double scan_ns = ns_per_value(count, [&] {
        double v;
        for (size_t i = 0; i < count; i++)
            sink += scan_double(base + starts[i], base + starts[i + 1] - 1, &v) + (v > 0.0);
    });
    row("real token (scan_double)", strtod_ns, "strtod", scan_ns);
    all.clear();
    starts.clear();
    for (size_t i = 0; i < count; i++) {
        starts.push_back(all.size());
        all += std::to_string(rng() % 100000);
        all += '\0';
    }
    starts.push_back(all.size());
    base = all.data();
    double strtol_ns = ns_per_value(count, [&] {
        for (size_t i = 0; i < count; i++) {
            char *end;
            sink += static_cast<size_t>(strtol(base + starts[i], &end, 10)) + (end - base);
        }
    });
    double scan_long_ns = ns_per_value(count, [&] {
        long v;
        for (size_t i = 0; i < count; i++)
            sink += scan_long(base + starts[i], base + starts[i + 1] - 1, &v) + v;
    });
    row("integer token (scan_long)", strtol_ns, "strtol", scan_long_ns);
    return sink == 0; // keeps the work from being optimised away
}
