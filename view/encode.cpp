#include "view/encode.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace laytran::view::detail {

namespace {

void put_u32(unsigned char *p, std::uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

void put_f32(unsigned char *p, float v) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    put_u32(p, bits);
}

template <typename T>
void append_chars(std::string &out, T v) {
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, res.ptr);
}

} // namespace

std::uint64_t encoded_layer_size(std::uint64_t paths, std::uint64_t points) {
    return 4 + 8 * paths + 8 * points;
}

void encode_layer(const Layer &layer, std::vector<unsigned char> &out) {
    std::uint64_t points = 0;
    for (const Path &path : layer.paths)
        points += path.points.size();
    out.resize(encoded_layer_size(layer.paths.size(), points));
    unsigned char *p = out.data();
    put_u32(p, static_cast<std::uint32_t>(layer.paths.size()));
    p += 4;
    for (const Path &path : layer.paths) {
        put_u32(p, static_cast<std::uint32_t>(path.kind) |
                       static_cast<std::uint32_t>(path.direction) << 8);
        put_u32(p + 4, static_cast<std::uint32_t>(path.points.size()));
        p += 8;
    }
    for (const Path &path : layer.paths) {
        for (const Point &pt : path.points) {
            put_f32(p, pt.x);
            put_f32(p + 4, pt.y);
            p += 8;
        }
    }
}

void base64_append(const unsigned char *data, std::size_t size, std::string &out) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::size_t start = out.size();
    out.resize(start + base64_size(size));
    char *o = &out[start];
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        std::uint32_t v =
            std::uint32_t(data[i]) << 16 | std::uint32_t(data[i + 1]) << 8 | data[i + 2];
        o[0] = digits[v >> 18];
        o[1] = digits[v >> 12 & 63];
        o[2] = digits[v >> 6 & 63];
        o[3] = digits[v & 63];
        o += 4;
    }
    if (i < size) {
        std::uint32_t v = std::uint32_t(data[i]) << 16;
        if (i + 1 < size) v |= std::uint32_t(data[i + 1]) << 8;
        o[0] = digits[v >> 18];
        o[1] = digits[v >> 12 & 63];
        o[2] = i + 1 < size ? digits[v >> 6 & 63] : '=';
        o[3] = '=';
    }
}

std::string to_utf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    auto cont = [&](std::size_t k) {
        return k < text.size() && (static_cast<unsigned char>(text[k]) & 0xC0) == 0x80;
    };
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        std::size_t len = c < 0x80                 ? 1
                          : c >= 0xC2 && c <= 0xDF ? 2
                          : c >= 0xE0 && c <= 0xEF ? 3
                          : c >= 0xF0 && c <= 0xF4 ? 4
                                                   : 0;
        bool ok = len > 0;
        for (std::size_t k = 1; ok && k < len; k++)
            ok = cont(i + k);
        if (ok && len >= 3) { // no overlong forms, surrogates or values past U+10FFFF
            auto c1 = static_cast<unsigned char>(text[i + 1]);
            ok = !(c == 0xE0 && c1 < 0xA0) && !(c == 0xED && c1 >= 0xA0) &&
                 !(c == 0xF0 && c1 < 0x90) && !(c == 0xF4 && c1 >= 0x90);
        }
        if (ok) {
            out.append(text.data() + i, len);
            i += len;
        } else { // a Latin-1 byte
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
            i++;
        }
    }
    return out;
}

void append_json_string(std::string &out, std::string_view text) {
    out += '"';
    for (char ch : to_utf8(text)) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c == '<') {
            static const char hex[] = "0123456789abcdef";
            out += "\\u00";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += ch;
        }
    }
    out += '"';
}

void append_markup_text(std::string &out, std::string_view text) {
    for (char ch : to_utf8(text)) {
        switch (ch) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            // XML 1.0 allows no other control characters, not even as references.
            out += static_cast<unsigned char>(ch) < 0x20 && ch != '\t' && ch != '\n' ? ' ' : ch;
        }
    }
}

void append_number(std::string &out, double v) {
    auto f = static_cast<float>(v);
    if (std::isfinite(f) && static_cast<double>(f) == v)
        append_chars(out, f);
    else
        append_chars(out, v);
}

void append_number(std::string &out, float v) {
    append_chars(out, v);
}

Bounds model_bounds(const Document &doc) {
    Bounds b;
    for (const Layer &layer : doc.layers) {
        for (const Path &path : layer.paths) {
            for (const Point &p : path.points) {
                if (is_break(p)) continue;
                if (b.empty) {
                    b = {p.x, p.x, p.y, p.y, false};
                    continue;
                }
                if (p.x < b.xmin) b.xmin = p.x;
                if (p.x > b.xmax) b.xmax = p.x;
                if (p.y < b.ymin) b.ymin = p.y;
                if (p.y > b.ymax) b.ymax = p.y;
            }
        }
    }
    return b;
}

} // namespace laytran::view::detail
