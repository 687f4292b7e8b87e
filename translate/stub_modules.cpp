// STUB, to be deleted at the switch: stand-ins for the format modules'
// factories, which the CLI, SLC and FDM branches provide. They make nothing,
// so a translation reports that it could not initialize its input; they
// exist only so that this branch links.
#include "translate/format_io.h"

namespace laytran {

std::unique_ptr<LayerSource> make_cli_source(ByteInput &, Reporter &, const SourceOptions &) {
    return nullptr;
}
std::unique_ptr<LayerSource> make_slc_source(ByteInput &, Reporter &, const SourceOptions &) {
    return nullptr;
}
std::unique_ptr<LayerSource> make_fdm_source(ByteInput &, Reporter &, const SourceOptions &) {
    return nullptr;
}
std::unique_ptr<LayerSink> make_cli_sink(OutputForm, ByteOutput &, Reporter &) {
    return nullptr;
}
std::unique_ptr<LayerSink> make_slc_sink(ByteOutput &, Reporter &) {
    return nullptr;
}
std::unique_ptr<LayerSink> make_fdm_sink(ByteOutput &, Reporter &) {
    return nullptr;
}

} // namespace laytran
