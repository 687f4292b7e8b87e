// What `view` and `svg` share: a model as the viewer's Document, and
// writing a picture through an Output.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "app/modern/console.h"
#include "app/modern/output.h"
#include "laytran/model.h"
#include "view/view.h"

namespace laytran::modern {

// The viewer's texts for `model`: the title, the header fields as written
// and the facts `info` prints.
view::Document document_texts(const std::string &title, const Model &model);

// Adds the model's layers in millimetres as the viewer draws them. Part
// contours keep the direction a CLI file declares (SLC and FDM declare
// none: unknown); open polylines (direction open), hatch blocks and
// support and web contours become their own kinds; gap marks become
// breaks. Throws view::Error for a coordinate or height that is no finite
// float in millimetres, naming its layer from 1.
void add_layers(view::Document &doc, const Model &model);

// At most the size of the page write_html makes of `doc` once `model`'s
// layers are added, known before they are.
std::uint64_t page_size(const view::Document &doc, const Model &model);

// The name a picture of `input` gets: its file name without the folder
// ("<stdin>" for standard input).
std::string picture_title(const std::string &input);

// Runs `write` into `out`'s stream and closes `out`, replacing its target
// only when everything was written. False after an error message: the
// writer's refusal (placed at `input`) or the output's write error.
bool write_picture(Output &out, const std::string &out_name, const std::string &input,
                   const std::function<void(std::ostream &)> &write, Console &console);

// "512 MiB", "12.5 KiB", "300 bytes".
std::string size_text(std::uint64_t bytes);

} // namespace laytran::modern
