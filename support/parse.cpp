#include "support/parse.h"

#include <climits>
#include <cstring>

#include "support/number_text.h"

char *str_to_lower(char *text) {
    if (!text) return text;
    for (char *p = text; *p; p++) {
        if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p + ('a' - 'A'));
    }
    return text;
}

int parse_int(const char *text, int *out) {
    if (!text) return 0;
    long value = 0;
    const char *end = text + scan_long(text, text + strlen(text), &value);
    // The value is a 32-bit integer; clamp what a wider long holds.
    if (value > INT_MAX) value = INT_MAX;
    if (value < INT_MIN) value = INT_MIN;
    *out = static_cast<int>(value);
    return *end == '\0' || *end == ' ';
}

int parse_double(const char *text, double *out) {
    if (!text) text = "";
    double value = 0.0;
    const size_t used = scan_double(text, text + strlen(text), &value);
    *out = value;
    return used != 0;
}

int parse_float(const char *text, float *out) {
    double value = 0.0;
    if (!parse_double(text, &value)) return 0;
    *out = static_cast<float>(value);
    return 1;
}

int is_nan(double x) {
    return x != x;
}
