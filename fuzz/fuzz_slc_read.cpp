// libFuzzer target: reads every boundary of an arbitrary SLC input.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "formats/slc/slc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (!f) return 0;
    SlcStream *s = slc_create();
    uint32_t mode = SLC_MODE_READ;
    uint32_t unit = size % 2 ? SLC_KW_MM : 0u;
    slc_set_option(s, SLC_OPT_MODE, &mode);
    slc_set_option(s, SLC_OPT_FILE, f);
    slc_set_option(s, SLC_OPT_UNIT, &unit);
    SliceContour c = {};
    while (slc_read_boundary(s, &c) != 0) {
    }
    contour_free_points(&c);
    slc_destroy(s);
    fclose(f);
    return 0;
}
