#include "support/opt.h"

#include <cstdio>
#include <cstring>

int opt_index = 1;
const char *opt_arg = nullptr;
int opt_letter = 0;

namespace {

const char empty_text[] = "";
const char *scan_position = empty_text;

void opt_message(const char *argv0, const char *text, int letter) {
    fputs(argv0 ? argv0 : "", stderr);
    fputs(text, stderr);
    fputc(letter, stderr);
    fputc('\n', stderr);
}

} // namespace

void opt_reset() {
    opt_index = 1;
    opt_arg = nullptr;
    opt_letter = 0;
    scan_position = empty_text;
}

int opt_next(int argc, char *const argv[], const char *letters) {
    if (*scan_position == '\0') {
        if (opt_index >= argc) return -1;
        const char *argument = argv[opt_index];
        if (!argument || argument[0] != '-') return -1;
        if (argument[1] == '\0') return -1;
        if (argument[1] == '-') {
            opt_index++;
            return -1;
        }
        scan_position = argument + 1;
    }
    int c = static_cast<unsigned char>(*scan_position++);
    opt_letter = c;
    const char *found = c == ':' ? nullptr : strchr(letters, c);
    if (!found) {
        if (*scan_position == '\0') opt_index++;
        opt_message(argv[0], ": illegal option -- ", c);
        return '?';
    }
    if (found[1] == ':') {
        if (*scan_position != '\0') {
            opt_arg = scan_position;
        } else {
            opt_index++;
            if (opt_index >= argc) {
                scan_position = empty_text;
                opt_message(argv[0], ": option requires an argument -- ", c);
                return '?';
            }
            opt_arg = argv[opt_index];
        }
        scan_position = empty_text;
        opt_index++;
        return c;
    }
    opt_arg = nullptr;
    if (*scan_position == '\0') opt_index++;
    return c;
}
