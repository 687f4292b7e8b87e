// Number and text helpers shared by the option handling and the format readers.
#pragma once

// Lower-cases ASCII letters in place; returns text (null in, null out).
char *str_to_lower(char *text);
// Decimal integer; succeeds when the text after the digits is empty or
// begins with a space. The value is stored even when the parse fails.
int parse_int(const char *text, int *out);
// Succeeds when at least one character forms a number; the rest is ignored.
// A text with no number stores 0 and fails.
int parse_double(const char *text, double *out);
// As parse_double; out is only touched on success.
int parse_float(const char *text, float *out);
int is_nan(double x);
