#include "app/modern/json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace laytran::modern {

namespace {

// The length of the valid UTF-8 sequence at p (at most n bytes), or 0.
std::size_t utf8_length(const unsigned char *p, std::size_t n) {
    std::size_t len;
    std::uint32_t min;
    if (p[0] < 0x80) return 1;
    if ((p[0] & 0xE0) == 0xC0)
        len = 2, min = 0x80;
    else if ((p[0] & 0xF0) == 0xE0)
        len = 3, min = 0x800;
    else if ((p[0] & 0xF8) == 0xF0)
        len = 4, min = 0x10000;
    else
        return 0;
    if (len > n) return 0;
    std::uint32_t cp = p[0] & (0x7F >> len);
    for (std::size_t i = 1; i < len; i++) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return len;
}

} // namespace

std::string json_string(const std::string &text) {
    std::string s = "\"";
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const std::size_t n = text.size();
    for (std::size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        char esc[8];
        if (c == '"' || c == '\\') {
            s += '\\';
            s += static_cast<char>(c);
            i++;
        } else if (c < 0x20 || c == 0x7F) {
            std::snprintf(esc, sizeof esc, "\\u%04X", c);
            s += esc;
            i++;
        } else if (std::size_t len = utf8_length(p + i, n - i)) {
            s.append(text, i, len);
            i += len;
        } else {
            std::snprintf(esc, sizeof esc, "\\u%04X", c);
            s += esc;
            i++;
        }
    }
    return s + "\"";
}

std::string json_number(double v) {
    if (!std::isfinite(v)) return "null";
    if (v == 0.0) return "0";
    char buf[32];
    // A value that is a float (heights and coordinates are kept as floats)
    // is written as the float's shortest text: 0.1, not 0.10000000149011612.
    const float f = static_cast<float>(v);
    const auto r = static_cast<double>(f) == v ? std::to_chars(buf, buf + sizeof buf, f)
                                               : std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

std::string json_number(std::uint64_t v) {
    return std::to_string(v);
}

} // namespace laytran::modern
