#include "support/parse.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

char *str_to_lower(char *text) {
    if (!text) return text;
    for (char *p = text; *p; p++) {
        if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p + ('a' - 'A'));
    }
    return text;
}

int parse_int(const char *text, int *out) {
    if (!text) return 0;
    char *end = nullptr;
    long value = strtol(text, &end, 10);
    // The value is a 32-bit integer; clamp what strtol gives on a wider long.
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    *out = static_cast<int>(value);
    return *end == '\0' || *end == ' ';
}

int parse_double(const char *text, double *out) {
    char *end = nullptr;
    double value = strtod(text ? text : "", &end);
    *out = value;
    return text && end != text;
}

int parse_float(const char *text, float *out) {
    double value = 0.0;
    if (!parse_double(text, &value)) return 0;
    *out = static_cast<float>(value);
    return 1;
}

int is_nan(double x) { return x != x; }
