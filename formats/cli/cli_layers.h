// The CLI module's LayerSource and LayerSink (declared in
// translate/format_io.h):
//
// make_cli_source reads a CLI file of any variant layer by layer.
// Coordinates and heights stay in the file's unit; the header says it
// (unit_mm: $$UNITS, 1 when the file gives none or 0), with the variant
// ("ASCII", "binary, long form, aligned", ...), $$LAYERS as
// declared_layers, the $$LABEL entries and every header command as written.
// Elements before the first $$LAYER make a layer at height 0. Polylines
// become part contours, blocks of hatches hatch contours. Layers without an
// element are handed out only with SourceOptions::keep_empty_layers.
// Remarks: at the read end, an early end (a number that did not convert,
// fewer layers than $$LAYERS declares, no ASCII $$GEOMETRYEND) and, at
// verbosity 1 to 5, 16-bit values read signed; at the run end, one warning
// per keyword of the unknown geometry commands passed over.
//
// make_cli_sink writes one of the five CLI forms. Part contours become
// polylines; hatch, support and web contours blocks of hatches. A contour
// with gaps is split at its gap marks: each piece before a mark is written
// as it is (even an empty one); what follows the last mark, like a contour
// without gaps, only when it holds two points or more. The header says version 200, the plan's unit
// (with a warning when it is not 0.01 mm), the input's $$DATE when it is a CLI file that gives one
// (today's date otherwise) and the layer count; with CliHeaderStyle::classic $$DIMENSION is the
// fixed frame 0..60000 and the header goes out with the first element; with
// CliHeaderStyle::faithful it is the plan's bounds, minimum corner first, the input's $$LABEL
// entries follow (bytes that would end a label's text written as blanks), and the header goes out
// with the first layer, so that layers without elements are kept. A value that does not fit its
// 16-bit field fails with error `field`, whose detail names the value, where it is and what helps.
// finish() is to be called in any case: without begin() it ends the file with a lone $$GEOMETRYEND,
// as the classic program does.
#pragma once

#include "translate/format_io.h"

namespace laytran {

// Millimetres per unit of CLI output when the caller chooses none.
constexpr double cli_default_unit_mm = 0.01;

} // namespace laytran
