// libFuzzer target: a source in check mode reads every layer of an
// arbitrary input, reading on past the problems it reports. Every offset it
// gives (a problem's, a layer's, a contour's) must lie inside the input,
// and every contour must have its place. Byte 0 chooses the format (CLI,
// SLC, FDM: its value modulo 3) and, with bit 2, a stream of unknown size
// read in small blocks; the rest is the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_input.h"
#include "translate/format_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t how = data[0];
    std::string input(reinterpret_cast<const char *>(data) + 1, size - 1);
    FuzzInput in(input.data(), input.size(), (how & 4) != 0, 16 + input.size() % 64);
    if (!in.get()) return 0;
    const laytran::InputFormat formats[] = {laytran::InputFormat::cli, laytran::InputFormat::slc,
                                            laytran::InputFormat::fdm};
    const std::int64_t limit = static_cast<std::int64_t>(input.size());
    laytran::DiagnosticSink sink = [limit](const laytran::Diagnostic &d) {
        if (d.offset > limit) abort();
    };
    laytran::Reporter reporter(sink);
    laytran::SourceOptions options;
    options.check = true;
    auto source = laytran::make_source(formats[how % 3], *in.get(), reporter, options);
    laytran::Layer layer;
    while (source->next_layer(layer)) {
        const laytran::LayerPlaces *places = source->places();
        if (!places || places->layer > input.size() ||
            places->contours.size() != layer.contours.size())
            abort();
        for (std::uint64_t at : places->contours) {
            if (at > input.size()) abort();
        }
    }
    source->report_read_end(reporter);
    source->report_run_end(reporter);
    if (source->error().offset > input.size()) abort();
    return 0;
}
