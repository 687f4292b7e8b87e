// libFuzzer target: the FDM source reads every layer of an arbitrary slice
// input. The input's size chooses how it is read, so that the seeds stay
// plain .ssl files: an odd size from a stream of unknown size in small
// blocks (1 to 64 bytes: every refill and pushback across a block end), an
// even size from memory; a size that is a multiple of three keeps empty
// layers.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "formats/fdm/fdm_layers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *f = nullptr;
    std::unique_ptr<laytran::ByteInput> in;
    if (size % 2) {
        f = fmemopen(const_cast<uint8_t *>(data), size, "rb");
        if (!f) return 0;
        in = std::make_unique<laytran::ByteInput>(f, 1 + size % 64);
    } else {
        in = std::make_unique<laytran::ByteInput>(data, size);
    }
    laytran::SourceOptions options;
    options.keep_empty_layers = size % 3 == 0;
    laytran::FdmSource source(*in, options);
    laytran::Layer layer;
    while (source.next_layer(layer)) {
    }
    if (f) fclose(f);
    return 0;
}
