// libFuzzer target: reads every element of an arbitrary CLI input.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "formats/cli/cli_internal.h"

namespace {
int ignore(void *, uint32_t, const void *) {
    return 0;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (!f) return 0;
    CliStream *s = cli_create();
    uint32_t mode = CLI_MODE_READ;
    CliCallback callback = ignore;
    cli_set_option(s, CLI_OPT_MODE, &mode);
    cli_set_option(s, CLI_OPT_FILE, f);
    cli_set_option(s, CLI_OPT_SCALE, reinterpret_cast<void *>(static_cast<intptr_t>(size % 2)));
    cli_set_option(s, CLI_OPT_CALLBACK, &callback);
    // A small buffer: refills inside values, and no 1 MiB block per input.
    s->buffer_size = 16 + static_cast<uint32_t>(size % 64);
    CliElement e = {};
    while (cli_read_element(s, &e) != 0) {
    }
    cli_free_points(&e);
    cli_destroy(s);
    fclose(f);
    return 0;
}
