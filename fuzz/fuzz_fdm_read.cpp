// libFuzzer target: the FDM source reads every layer of an arbitrary slice
// input. The input's size chooses how it is read, so that the seeds stay
// plain .ssl files: an odd size from a stream of unknown size in small
// blocks (1 to 64 bytes: every refill and pushback across a block end), an
// even size from memory; a size that is a multiple of three keeps empty
// layers.
#include <cstddef>
#include <cstdint>

#include "formats/fdm/fdm_layers.h"
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FuzzInput input(data, size, size % 2 != 0, 1 + size % 64);
    if (!input.get()) return 0;
    laytran::SourceOptions options;
    options.keep_empty_layers = size % 3 == 0;
    laytran::FdmSource source(*input.get(), options);
    laytran::Layer layer;
    while (source.next_layer(layer)) {
    }
    return 0;
}
