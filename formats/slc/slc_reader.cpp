// The SLC reader: the header text scanner, the reserved area, the sampling
// table and the binary layers of boundaries.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "formats/point_bytes.h"
#include "formats/slc/slc_io.h"
#include "support/number_text.h"

namespace laytran {

namespace {

const char *const error_texts[] = {
    "success",
    "premature EOF (not an SLC file or truncated file?)",
    "read error",
    "write error",
    "open error",
    "floating-point value is NaN",
    "illegal number",
    "illegal character",
    "illegal keyword",
    "illegal file format",
    "too few layers",
    "no more memory",
    "error in context (programming error?)",
    "illegal argument (programming error?)",
    "limit exceeded",
    "not an SLC file",
};

// In the order of SlcKeyword, from arcres on.
const char *const keywords[] = {
    "ARCRES",  "CHORDDEV", "EXTENTS", "EXTLWC",  "GAPTOL",  "INCH", "MAXGAPFOUND", "MM",
    "PACKAGE", "PART",     "SLCVER",  "SUPPORT", "SURFTOL", "TYPE", "UNIT",        "WEB",
};
constexpr int keyword_count = sizeof keywords / sizeof keywords[0];

constexpr int ctrl_z = 0x1A;
constexpr int end_of_text = -1;
constexpr std::size_t header_text_max = 2050; // header characters kept before the Ctrl-Z
constexpr std::size_t reserved_size = 256;
constexpr std::size_t keyword_letters = 12; // letters of a word that count
constexpr std::size_t version_max = 3, package_max = 32;
// Doubles below this in magnitude round to a finite float.
constexpr double f32_limit = 0x1.ffffffp+127;

constexpr bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
// Vertices taken from the input's block at a time (well within its size).
constexpr std::size_t vertex_run = 16384;

std::uint32_t load_u32(const std::uint8_t *p) {
    return p[0] | static_cast<std::uint32_t>(p[1]) << 8 | static_cast<std::uint32_t>(p[2]) << 16 |
           static_cast<std::uint32_t>(p[3]) << 24;
}

bool is_letter(int c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
char to_upper(int c) {
    return static_cast<char>(c >= 'a' && c <= 'z' ? c - ('a' - 'A') : c);
}

// The header text (cut to its first 2050 characters and closed by the
// Ctrl-Z) read as keywords and values. Non-printable bytes (0x80 to 0xFF
// too) and those of the current delimiter set separate words, except a '-'
// in front of a digit, which starts a negative number. The Ctrl-Z ends a
// word without being a delimiter: it is left to be read again.
class HeaderScanner {
  public:
    HeaderScanner(const std::string &text, SlcHeader &header) : text_(text), h_(header) {}

    // Check mode: every error goes to `all` and scanning goes on.
    struct Found {
        SlcError code;
        std::size_t at;
        std::string token;
    };
    std::vector<Found> *all = nullptr;

    // Scans the whole text; the first error found, if any.
    SlcError scan();
    // Where in the text the error was found, and the offending text.
    std::size_t error_at = 0;
    std::string error_token;

  private:
    int get() {
        return pos_ < text_.size() ? static_cast<std::uint8_t>(text_[pos_++]) : end_of_text;
    }
    void unget(int c) {
        if (c != end_of_text) pos_--;
    }
    bool is_delimiter(int c) {
        if (c < 0 || c == ctrl_z) return false;
        if (c == '-' && pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9')
            return false;
        if (c < 0x20 || c > 0x7E) return true;
        return std::strchr(delimiters_, c) != nullptr;
    }
    bool ends_word(int c) { return c < 0 || c == ctrl_z || is_delimiter(c); }
    void fail(SlcError code, std::size_t at, std::string token) {
        if (all) {
            all->push_back({code, at, std::move(token)});
            return;
        }
        if (error_ != SlcError::none) return;
        error_ = code;
        error_at = at;
        error_token = std::move(token);
    }
    // The next keyword and where its word starts (none, with the error
    // recorded, for a word that is no keyword); false at the Ctrl-Z (left
    // in place) or the end of the text.
    bool keyword(SlcKeyword &code, std::size_t &start);
    // A word value, upper-cased, of which the first `limit` characters are kept.
    void word(std::string &field, std::size_t limit, std::size_t &start);
    // A number value; `out` keeps its value when the text does not convert.
    void number(float &out, std::size_t &start);
    void field(SlcKeyword key, std::size_t start) {
        std::size_t end = pos_;
        while (end > start && (text_[end - 1] == ' ' || text_[end - 1] == ','))
            end--;
        h_.fields.push_back(
            {keywords[static_cast<int>(key) - 1], text_.substr(start, end - start)});
    }

    const std::string &text_;
    SlcHeader &h_;
    std::size_t pos_ = 0;
    const char *delimiters_ = "- ,";
    SlcError error_ = SlcError::none;
};

bool HeaderScanner::keyword(SlcKeyword &code, std::size_t &start) {
    int c;
    do {
        c = get();
        if (c < 0) {
            fail(SlcError::eof, pos_, {});
            return false;
        }
        if (c == ctrl_z) {
            unget(c);
            return false;
        }
    } while (!is_letter(c));
    start = pos_ - 1;
    char word[keyword_letters + 1];
    std::size_t n = 0;
    for (; !ends_word(c); c = get()) {
        if (n < keyword_letters) word[n++] = to_upper(c);
    }
    word[n] = '\0';
    unget(c);
    code = SlcKeyword::none;
    for (int k = 0; k < keyword_count; k++) {
        if (std::strcmp(word, keywords[k]) == 0) code = static_cast<SlcKeyword>(k + 1);
    }
    if (code == SlcKeyword::none) fail(SlcError::keyword, start, text_.substr(start, pos_ - start));
    return true;
}

void HeaderScanner::word(std::string &field, std::size_t limit, std::size_t &start) {
    int c;
    do
        c = get();
    while (c == ' ');
    start = pos_ - (c < 0 ? 0 : 1);
    field.clear();
    for (; !ends_word(c); c = get()) {
        if (field.size() < limit) field += to_upper(c);
    }
    if (c != ' ') unget(c);
}

void HeaderScanner::number(float &out, std::size_t &start) {
    int c;
    do
        c = get();
    while (is_delimiter(c));
    start = pos_ - (c < 0 ? 0 : 1);
    for (; !ends_word(c); c = get()) {
    }
    unget(c);
    const char *first = text_.data() + start, *last = text_.data() + pos_;
    double v;
    if (scan_double(first, last, &v) == 0) return;
    if (v != v) {
        fail(SlcError::nan, start, std::string(first, last));
    } else if (!(std::fabs(v) < f32_limit)) {
        fail(SlcError::number, start, std::string(first, last));
    } else {
        out = static_cast<float>(v);
    }
}

SlcError HeaderScanner::scan() {
    std::size_t start = 0, at = 0;
    while (error_ == SlcError::none) {
        delimiters_ = "- ,";
        SlcKeyword key;
        if (!keyword(key, at)) break;
        switch (key) {
        case SlcKeyword::slcver:
            word(h_.version, version_max, start);
            field(key, start);
            break;
        case SlcKeyword::unit:
        case SlcKeyword::type: {
            SlcKeyword value;
            if (!keyword(value, start)) break;
            (key == SlcKeyword::unit ? h_.unit : h_.type) = value;
            field(key, start);
            break;
        }
        case SlcKeyword::package:
            delimiters_ = "-";
            word(h_.package, package_max, start);
            field(key, start);
            break;
        case SlcKeyword::extents: {
            std::size_t first = 0;
            for (int i = 0; i < 6; i++) {
                float v = static_cast<float>(h_.extents[i]);
                number(v, i == 0 ? first : start);
                h_.extents[i] = v;
            }
            field(key, first);
            break;
        }
        case SlcKeyword::chorddev:
        case SlcKeyword::arcres:
        case SlcKeyword::surftol:
        case SlcKeyword::gaptol:
        case SlcKeyword::maxgapfound:
        case SlcKeyword::extlwc: {
            float &v = key == SlcKeyword::chorddev      ? h_.chord_deviation
                       : key == SlcKeyword::arcres      ? h_.arc_resolution
                       : key == SlcKeyword::surftol     ? h_.surface_tolerance
                       : key == SlcKeyword::gaptol      ? h_.gap_tolerance
                       : key == SlcKeyword::maxgapfound ? h_.max_gap_found
                                                        : h_.extlwc;
            number(v, start);
            field(key, start);
            break;
        }
        default: // INCH, MM, PART, SUPPORT, WEB stand alone; none is an error
            break;
        }
    }
    return error_;
}

} // namespace

const char *slc_error_text(int code) {
    return code >= 0 && code < static_cast<int>(sizeof error_texts / sizeof error_texts[0])
               ? error_texts[code]
               : "<unknown>";
}

bool SlcReader::fail(SlcError code, std::uint64_t offset, std::string token) {
    if (!error_) {
        error_.code = static_cast<int>(code);
        error_.text = slc_error_text(error_.code);
        error_.offset = offset;
        error_.token = std::move(token);
        if (code == SlcError::read) error_.system_error = in_.error_number();
    }
    stopped_ = true;
    return false;
}

bool SlcReader::fail_input() {
    return fail(in_.failed() ? SlcError::read : SlcError::eof, in_.offset());
}

bool SlcReader::read_u32(std::uint32_t &v) {
    if (const std::uint8_t *p = in_.contiguous(4)) {
        v = load_u32(p);
        in_.skip(4);
        return true;
    }
    std::uint8_t b[4];
    if (in_.read(b, 4) < 4) return fail_input();
    v = load_u32(b);
    return true;
}

bool SlcReader::read_f32(float &v) {
    std::uint32_t bits = 0;
    if (!read_u32(bits)) return false;
    if ((bits & 0x7F800000u) == 0x7F800000u) {
        const SlcError code = (bits & 0x007FFFFFu) ? SlcError::nan : SlcError::number;
        if (!check_) return fail(code, in_.offset() - 4);
        check_(code, in_.offset() - 4, {});
        bits = 0;
    }
    std::memcpy(&v, &bits, sizeof v);
    return true;
}

void SlcReader::parse_header_text(const std::string &text, std::uint64_t start) {
    HeaderScanner scanner(text, header_);
    std::vector<HeaderScanner::Found> all;
    if (check_) scanner.all = &all;
    SlcError e = scanner.scan();
    for (HeaderScanner::Found &f : all)
        check_(f.code, start + f.at, f.token);
    if (e != SlcError::none) {
        fail(e, start + scanner.error_at, scanner.error_token);
        stopped_ = false; // the binary part after the Ctrl-Z is still read
    }
}

bool SlcReader::read_header() {
    if (header_read_) return !stopped_;
    header_read_ = true;
    if (stopped_) return false;
    const std::uint64_t start = in_.offset();
    std::string text;
    for (std::uint64_t searched = 0;; searched++) {
        if (searched == slc_header_search) return fail(SlcError::not_slc, in_.offset());
        int c = in_.get();
        if (c == ByteInput::eof) return fail_input();
        if (c == ctrl_z) break;
        if (text.size() < header_text_max) text += static_cast<char>(c);
    }
    text += static_cast<char>(ctrl_z);
    parse_header_text(text, start);

    std::uint8_t reserved[reserved_size];
    if (in_.read(reserved, reserved_size) < reserved_size) return fail_input();
    int n = in_.get();
    if (n == ByteInput::eof) return fail_input();
    // Entries are kept aside until they have all been read.
    SlcSample table[slc_max_samples];
    for (int i = 0; i < n; i++) {
        SlcSample &e = table[i];
        if (!read_f32(e.z) || !read_f32(e.thickness) || !read_f32(e.line_width) ||
            !read_f32(e.reserved))
            return false;
    }
    samples_.assign(table, table + n);
    return true;
}

bool SlcReader::next_layer(float &z, std::uint32_t &boundaries) {
    if (!read_header() || stopped_) return false;
    if (!read_f32(z) || !read_u32(boundaries)) return false;
    if (boundaries == slc_end_of_layers) {
        ended_ = stopped_ = true;
        return false;
    }
    return true;
}

bool SlcReader::read_boundary(std::vector<Point> &points, std::uint32_t &gaps,
                              PointExtremes *extremes) {
    points.clear();
    if (extremes) *extremes = {};
    if (stopped_) return false;
    std::uint32_t n = 0;
    return read_u32(n) && read_u32(gaps) && read_vertices(points, n, extremes);
}

// The vertices are read straight into the point array. An input of known
// size that cannot hold them is a premature end at once; on other input the
// array grows as the vertices arrive.
bool SlcReader::read_vertices(std::vector<Point> &points, std::uint32_t n,
                              PointExtremes *extremes) {
    static_assert(sizeof(Point) == 8, "a point is two floats");
    const std::uint64_t bytes = static_cast<std::uint64_t>(n) * sizeof(Point);
    if (in_.size_known() && bytes > in_.remaining()) return fail(SlcError::eof, in_.size());
    std::size_t have = 0; // points read and checked
    if (little_endian && in_.size_known()) {
        // Runs of finite values go from the input's block to the array as
        // they stand; the rest (a value to refuse, bytes not at hand) takes
        // the way below.
        points.reserve(n);
        PointExtremes taken;
        taken.known = true;
        while (have < n) {
            const std::size_t run = std::min<std::size_t>(n - have, vertex_run);
            const std::uint8_t *p = in_.contiguous(run * sizeof(Point));
            if (!p) break;
            // One pass checks the values and takes their extremes.
            const PointScan scan = scan_point_bytes(p, run);
            if (!scan.finite) break;
            widen(taken, scan);
            points.insert(points.end(), PointBytes(p), PointBytes(p + run * sizeof(Point)));
            in_.skip(run * sizeof(Point));
            have += run;
        }
        if (extremes && have == n) *extremes = taken;
    }
    while (have < n) {
        std::size_t want = n;
        if (!in_.size_known()) want = std::min<std::size_t>(n, std::max<std::size_t>(16, 2 * have));
        points.resize(want);
        const std::uint64_t start = in_.offset();
        const std::size_t asked = (want - have) * sizeof(Point);
        const std::size_t got = in_.read(&points[have], asked);
        auto *values = reinterpret_cast<unsigned char *>(&points[have]);
        bool bad = false;
        for (std::size_t i = 0; i < got / 4; i++) {
            std::uint32_t bits;
            std::memcpy(&bits, values + 4 * i, 4);
            if (!little_endian) {
                bits = __builtin_bswap32(bits);
                std::memcpy(values + 4 * i, &bits, 4);
            }
            bad |= (bits & 0x7F800000u) == 0x7F800000u;
        }
        for (std::size_t i = 0; bad && i < got / 4; i++) {
            std::uint32_t bits;
            std::memcpy(&bits, values + 4 * i, 4);
            if ((bits & 0x7F800000u) != 0x7F800000u) continue;
            const SlcError code = (bits & 0x007FFFFFu) ? SlcError::nan : SlcError::number;
            if (!check_) {
                points.resize(have + i / 2);
                return fail(code, start + 4 * i);
            }
            check_(code, start + 4 * i, {});
            std::memset(values + 4 * i, 0, 4);
        }
        have += got / sizeof(Point);
        if (got < asked) {
            points.resize(have);
            return fail_input();
        }
    }
    return true;
}

} // namespace laytran
