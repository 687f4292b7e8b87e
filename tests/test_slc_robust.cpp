#include <cfloat>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>

#include "formats/slc/slc_internal.h"

namespace {

// A valid file with every header keyword, a sampling table and a few layers.
std::string base_file() {
    FILE *f = tmpfile();
    SlcStream *s = slc_create();
    uint32_t mode = SLC_MODE_WRITE;
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    const float levels[] = {0.5f, 1.0f, 1.5f, 2.5f, FLT_MAX};
    slc_set_sampling_levels(s, levels, nullptr);
    SlicePoint pts[5] = {{0, 0}, {4, 0}, {GAP_MARK, GAP_MARK}, {4, 4}, {0, 0}};
    SliceContour c = {CONTOUR_PART, 5, 1, 5, 5, pts, 0, 0};
    for (int i = 0; i < 4; i++) {
        SlcLayerInfo layer = {levels[i], 0, static_cast<uint32_t>(i % 3)};
        slc_set_option(s, SLC_OPT_LAYER, &layer);
        for (uint32_t k = 0; k < layer.count; k++)
            slc_write_entity(s, &c);
    }
    slc_destroy(s);
    std::string body(static_cast<size_t>(ftell(f)), '\0');
    rewind(f);
    EXPECT_EQ(fread(&body[0], 1, body.size(), f), body.size());
    fclose(f);
    const size_t header_end = body.find('\x1a') + 1;
    return "-SLCVER 2.0\r\n-UNIT INCH\r\n-TYPE WEB\r\n-PACKAGE a b-1\r\n-EXTENTS -1,2 -3,4 5,6\r\n"
           "-CHORDDEV 0.1 -ARCRES 2 -SURFTOL 3 -GAPTOL 4 -MAXGAPFOUND 5 -EXTLWC 6\r\n\x1a" +
           body.substr(header_end);
}

} // namespace

// Mutated and truncated files must only ever end in a result of 0: the
// sanitizer build turns any memory fault on the way into a failure.
TEST(SlcRobust, MutatedFilesTerminate) {
    const std::string base = base_file();
    std::mt19937 rng(20240611);
    FILE *regular = tmpfile();
    ASSERT_NE(regular, nullptr);
    for (int round = 0; round < 3000; round++) {
        std::string b = base;
        const int edits = 1 + static_cast<int>(rng() % 4);
        for (int e = 0; e < edits && !b.empty(); e++) {
            const size_t at = rng() % b.size();
            switch (rng() % 5) {
            case 0:
                b[at] = static_cast<char>(rng());
                break;
            case 1:
                b[at] = static_cast<char>(b[at] ^ (1 << (rng() % 8)));
                break;
            case 2:
                b.insert(at, 1, static_cast<char>(rng()));
                break;
            case 3:
                b.erase(at, 1 + rng() % 8);
                break;
            default:
                b.resize(at);
                break;
            }
        }
        const bool use_regular = round % 2 == 0 || b.empty();
        FILE *f = regular;
        if (use_regular) {
            ASSERT_EQ(ftruncate(fileno(regular), 0), 0);
            rewind(regular);
            fwrite(b.data(), 1, b.size(), regular);
            fflush(regular);
            rewind(regular);
        } else {
            f = fmemopen(&b[0], b.size(), "rb");
            ASSERT_NE(f, nullptr);
        }
        SlcStream *s = slc_create();
        uint32_t mode = SLC_MODE_READ, unit = round % 3 == 0 ? uint32_t{SLC_KW_MM} : 0u;
        slc_set_option(s, SLC_OPT_MODE, &mode);
        slc_set_option(s, SLC_OPT_FILE, f);
        slc_set_option(s, SLC_OPT_UNIT, &unit);
        s->buffer_size = 1 + rng() % 64;
        SliceContour c = {};
        int calls = 0;
        while (slc_read_boundary(s, &c) != 0)
            ASSERT_LT(++calls, 100000);
        contour_free_points(&c);
        slc_destroy(s);
        if (!use_regular) fclose(f);
    }
    fclose(regular);
}
