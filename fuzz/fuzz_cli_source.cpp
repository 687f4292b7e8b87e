// libFuzzer target: the CLI source reads an arbitrary input, the CLI sink
// writes what it read, and whatever the sink wrote without an error must
// read back without one. Byte 0 chooses the output form (bits 0-2), the
// faithful header (bit 3), kept empty layers (bit 4) and an input of
// unknown size read in small blocks (bit 5); the rest is the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "formats/cli/cli_layers.h"
#include "fuzz/fuzz_input.h"

namespace {

const laytran::OutputForm forms[] = {
    laytran::OutputForm::cli_ascii, laytran::OutputForm::cli_binary,
    laytran::OutputForm::cli_aligned, laytran::OutputForm::cli_short,
    laytran::OutputForm::cli_aligned_short};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t how = data[0];
    std::string input(reinterpret_cast<const char *>(data) + 1, size - 1);
    FuzzInput in(input.data(), input.size(), (how & 0x20) != 0, 16 + input.size() % 64);
    if (!in.get()) return 0;
    laytran::DiagnosticSink none;
    laytran::Reporter reporter(none);
    laytran::SourceOptions options;
    options.keep_empty_layers = (how & 0x10) != 0;
    auto source = laytran::make_cli_source(*in.get(), reporter, options);
    std::vector<laytran::Layer> layers(1);
    while (source->next_layer(layers.back()))
        layers.emplace_back();
    layers.pop_back();
    source->report_read_end(reporter);
    source->report_run_end(reporter);
    std::string out_bytes;
    laytran::ByteOutput out(&out_bytes);
    auto sink = laytran::make_cli_sink(forms[(how & 7) % 5], out, reporter);
    laytran::OutputPlan plan;
    plan.layer_count = layers.size();
    plan.source = &source->header();
    plan.cli_header =
        (how & 8) ? laytran::CliHeaderStyle::faithful : laytran::CliHeaderStyle::classic;
    plan.bounds = {0, 1, 0, 1, 0, 1};
    bool ok = sink->begin(plan);
    for (size_t i = 0; i < layers.size() && ok; i++)
        ok = sink->write_layer(layers[i]);
    ok = sink->finish() && ok;
    if (ok) {
        laytran::ByteInput back(out_bytes.data(), out_bytes.size());
        auto again = laytran::make_cli_source(back, reporter, options);
        laytran::Layer layer;
        while (again->next_layer(layer)) {
        }
        if (again->error()) abort();
    }
    return 0;
}
