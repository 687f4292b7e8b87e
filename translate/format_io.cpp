// The engine's dispatch over the format modules' factories.
#include "translate/format_io.h"

namespace laytran {

std::unique_ptr<LayerSource> make_source(InputFormat format, ByteInput &in, Reporter &reporter,
                                         const SourceOptions &options) {
    switch (format) {
    case InputFormat::slc:
        return make_slc_source(in, reporter, options);
    case InputFormat::fdm:
        return make_fdm_source(in, reporter, options);
    case InputFormat::cli:
        break;
    }
    return make_cli_source(in, reporter, options);
}

std::unique_ptr<LayerSink> make_sink(OutputForm form, ByteOutput &out, Reporter &reporter) {
    if (form == OutputForm::slc) return make_slc_sink(out, reporter);
    if (form == OutputForm::fdm) return make_fdm_sink(out, reporter);
    return make_cli_sink(form, out, reporter);
}

} // namespace laytran
