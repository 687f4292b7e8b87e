// libFuzzer target: reads every contour of an arbitrary FDM slice input.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "formats/fdm/fdm_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (!f) return 0;
    FdmStream *s = fdm_create();
    uint32_t mode = FDM_MODE_READ;
    fdm_set_option(s, FDM_OPT_MODE, &mode);
    fdm_set_option(s, FDM_OPT_FILE, f);
    // Small buffers make every input cheap and exercise the refills.
    s->buffer_size = static_cast<uint32_t>(1 + size % 64);
    FdmContour c = {};
    while (fdm_read_contour(s, &c) != 0) {
    }
    fdm_free_points(&c);
    fdm_destroy(s);
    fclose(f);
    return 0;
}
